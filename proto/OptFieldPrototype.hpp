#pragma once

#include "proto/FieldPrototype.hpp"
#include "proto/OptFieldTraits.hpp"

#include <cstddef>
#include <optional>
#include <tuple>
#include <utility>

namespace proto {

/// A field of options: a presence mask of two bytes, then the slots that are present, in the order
/// of their declaration, without gaps.
///
///     mask 05 00, slot 0, slot 2
///
/// Mask bits above the last slot are ignored. The field itself is never absent: without options it
/// is its mask.
///
/// Thread safety: one thread at a time, the caller's duty.
template <FieldName NAME, unsigned BUFFER, FieldFlags FLAGS, unsigned long MAX, typename... T>
class OptFieldPrototype final : public FieldPrototype<NAME, unsigned char*, BUFFER, FLAGS, MAX> {
    using Base = FieldPrototype<NAME, unsigned char*, BUFFER, FLAGS, MAX>;
    using Mask = unsigned short;
    static_assert(sizeof...(T) <= 16, "the mask has 16 bits");

public:
    static constexpr unsigned long K_MASK_SIZE = sizeof(Mask);
    /// What `set` takes.
    using Options = std::tuple<std::optional<T>...>;
    template <std::size_t SLOT>
    using Slot = std::tuple_element_t<SLOT, std::tuple<T...>>;

    OptFieldPrototype() { OptFieldPrototype::reset(); }

    /// Takes over the `Options` that `source` points to, and rebuilds the field.
    void set(void const* source) override {
        values_ = *static_cast<Options const*>(source);
        mask_ = 0;
        for_each_slot([this]<std::size_t SLOT>() {
            if (std::get<SLOT>(values_)) {
                mask_ = static_cast<Mask>(mask_ | bit(SLOT));
            }
        });
        rebuild();
    }

    /// The size becomes that of the mask, which a receiver reads first.
    void reset() override {
        Base::reset();
        mask_ = 0;
        this->assign_size(K_MASK_SIZE);
    }

    /// Settles the size, and writes the mask and the slots that are present if there is room.
    void rebuild() {
        unsigned long size = K_MASK_SIZE;
        for_each_slot([&]<std::size_t SLOT>() {
            if ((mask_ & bit(SLOT)) != 0) {
                size += OptFieldTraits<Slot<SLOT>>::wire_size(*std::get<SLOT>(values_));
            }
        });
        this->assign_size(size);
        if (this->fits()) {
            write();
        }
    }

    static Mask read_mask_of(unsigned char const* field) {
        return OptFieldTraits<Mask>::read(field);
    }
    Mask read_mask_from_buffer() const { return read_mask_of(this->begin()); }

    /// The field's size as far as the bytes received tell: never more than it has in the end, and
    /// `read()` exactly when it is complete.
    unsigned long probe_size() const {
        if (this->read() < K_MASK_SIZE) {
            return this->read() + 1;
        }
        Mask const mask = read_mask_from_buffer();
        unsigned long total = K_MASK_SIZE;
        bool known = true; // Of all slots so far, and hence where the next one begins.
        for_each_slot([&]<std::size_t SLOT>() {
            using Traits = OptFieldTraits<Slot<SLOT>>;
            if (!known || (mask & bit(SLOT)) == 0) {
                return;
            }
            known = Traits::K_IS_PLAIN || this->read() >= total + Traits::K_LEAST_SIZE;
            total += known ? Traits::stored_size(this->begin() + total) : Traits::K_LEAST_SIZE;
        });
        return total;
    }

    /// Where slot `index` begins in a stored field with that mask.
    static unsigned long slot_offset_of(unsigned char const* field, Mask mask,
                                        unsigned long index) {
        unsigned long offset = K_MASK_SIZE;
        for_each_slot([&]<std::size_t SLOT>() {
            if (SLOT < index && (mask & bit(SLOT)) != 0) {
                offset += OptFieldTraits<Slot<SLOT>>::stored_size(field + offset);
            }
        });
        return offset;
    }

    /// Slot N of a stored field, which is complete: as received and copied.
    template <std::size_t SLOT>
    static std::optional<Slot<SLOT>> get_field_from(unsigned char const* field) {
        Mask const mask = read_mask_of(field);
        if ((mask & bit(SLOT)) == 0) {
            return std::nullopt;
        }
        return OptFieldTraits<Slot<SLOT>>::read(field + slot_offset_of(field, mask, SLOT));
    }

private:
    void write() {
        unsigned char* target = this->begin();
        OptFieldTraits<Mask>::write(target, mask_);
        target += K_MASK_SIZE;
        for_each_slot([&]<std::size_t SLOT>() {
            if ((mask_ & bit(SLOT)) != 0) {
                auto const& value = *std::get<SLOT>(values_);
                OptFieldTraits<Slot<SLOT>>::write(target, value);
                target += OptFieldTraits<Slot<SLOT>>::wire_size(value);
            }
        });
    }

    static constexpr Mask bit(std::size_t slot) { return static_cast<Mask>(1U << slot); }

    template <typename Function>
    static void for_each_slot(Function function) {
        [&]<std::size_t... SLOT>(std::index_sequence<SLOT...>) {
            (function.template operator()<SLOT>(), ...);
        }
        (std::index_sequence_for<T...>());
    }

    Mask mask_ = 0;
    Options values_;
};

} // namespace proto
