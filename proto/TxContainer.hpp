#pragma once

#include "libraries/vocabulary/IInterface.hpp"
#include "proto/FieldContainer.hpp"
#include "proto/FieldInfo.hpp"
#include "proto/FieldPrototype.hpp"
#include "proto/tx_checks.hpp"

#include <chrono>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace proto {

/// Builds frames in its buffer and hands them to a transport.
///
/// Fields without a value of their own are computed: the length, the CRC, the source and the
/// channel. The rest is what the sender gives, the constant, or zero bytes.
///
/// Ownership: the interface is the user's and outlives the container.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: a frame that cannot be (a type that has no row in the data field's table, a value beyond
/// its field's `MAX`, more than the buffer holds) is not sent at all, and 0 is returned. What the
/// transport does with a frame is not looked at: loss is normal.
template <typename Fields, typename Crc>
class TxContainer final : public FieldContainer<Fields, Crc> {
    using Base = FieldContainer<Fields, Crc>;

public:
    template <typename... CrcArguments>
    explicit TxContainer(typename Base::Buffers buffers, CrcArguments&&... crc_arguments)
        : Base(buffers, std::forward<CrcArguments>(crc_arguments)...) {
        this->template use_checks<TxChecks<TxContainer>>();
        this->reset();
    }

    void set_interface(interface::IInterface& interface) { interface_ = &interface; }

    /// Sends a frame with the values of these `FieldInfo`s, and returns its size.
    template <typename... Infos>
    unsigned long send_packet(Infos const&... infos) {
        unsigned long const size = construct_packet_from_tuple(std::tuple(infos...));
        if (size > 0) {
            print_sent();
            write();
        }
        return size;
    }

    /// Builds a frame in the buffer without sending it; returns its size.
    template <typename... Infos>
    unsigned long construct_packet_from_tuple(std::tuple<Infos...> const& infos) {
        this->reset();
        if (!select_packet(infos) || !take_sizes(infos)) {
            return 0;
        }
        std::size_t ordinal = 0;
        unsigned long total = 0;
        bool is_whole = true;
        this->for_each_type([&](auto& field) {
            is_whole = is_whole && put(ordinal, field, infos);
            total += field.get_size();
            ++ordinal;
        });
        return is_whole ? total : 0;
    }

private:
    static constexpr std::chrono::milliseconds K_WRITE_TIMEOUT{1};

    /// The value of the type field decides what payload there may be.
    template <typename Infos>
    bool select_packet(Infos const& infos) {
        if constexpr (K_HAS_FIELD<Infos, TYPE_FIELD> && K_HAS_FIELD<Fields, DATA_FIELD>) {
            auto const type = *get_field_info_by_name<TYPE_FIELD>(infos).value;
            return this->template get<DATA_FIELD>().set_id(static_cast<int>(type));
        } else {
            return true;
        }
    }

    template <typename Infos>
    bool take_sizes(Infos const& infos) {
        bool allowed = true;
        for_each_info(infos, [&](auto const& info) {
            using Info = std::remove_cvref_t<decltype(info)>;
            auto& field = this->template get<Info::K_NAME>();
            allowed = field.template set_size<typename Info::Type>(info.size) && allowed;
        });
        return allowed;
    }

    /// Writes a field behind those before it. False if it has no room.
    template <typename Placed, typename Infos>
    bool put(std::size_t ordinal, Placed& field, Infos const& infos) {
        this->place(ordinal);
        constexpr bool K_IS_GIVEN = K_HAS_FIELD<Infos, Placed::K_NAME>;
        if constexpr (K_IS_GIVEN) {
            auto const& info = get_field_info_by_name<Placed::K_NAME>(infos);
            static_assert(matches<Placed, typename std::remove_cvref_t<decltype(info)>::Type>(),
                          "the value is not of the field's type");
            field.set(info.value);
        }
        if (!field.fits()) {
            return false;
        }
        if (!K_IS_GIVEN && field.matcher() == nullptr) {
            field.apply_const();
        }
        if (field.matcher() != nullptr) {
            field.matcher()(this);
        }
        this->advance(ordinal);
        return true;
    }

    /// Whether a value of that type is what the field is made to copy from.
    template <typename Placed, typename Value>
    static constexpr bool matches() {
        if constexpr (requires { typename Placed::Options; }) {
            return std::is_same_v<Value, typename Placed::Options>;
        } else if constexpr (Placed::K_IS_NUMBER) {
            return sizeof(Value) == sizeof(typename Placed::Type) && !std::is_pointer_v<Value>;
        } else {
            return std::is_same_v<Value, unsigned char*> || std::is_same_v<Value, EmptyDataType>;
        }
    }

    void print_sent() const {
        if (this->is_debug(DebugPrintFlags::Sent)) {
            for (Field const* const field : this->in_order()) {
                field->print();
            }
        }
    }

    /// The fields stand in the buffer as on the wire, so those of one buffer are one write.
    void write() {
        if (interface_ == nullptr) {
            return;
        }
        interface_->begin_frame();
        this->for_each_run([](Field const&) { return true; },
                           [this](auto run) { interface_->write(run, K_WRITE_TIMEOUT); });
        interface_->end_frame();
    }

    interface::IInterface* interface_ = nullptr;
};

} // namespace proto
