#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"
#include "proto/Field.hpp"
#include "proto/NamedValue.hpp"
#include "proto/field_list.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

namespace proto {

/// The buffers that a container's fields lie in, in the order of the fields' `BUFFER` numbers.
template <typename Fields>
using FrameBuffers = std::array<tessaron::CustomSpan<unsigned char>, K_BUFFER_COUNT<Fields>>;

template <typename Fields, typename Crc>
class FieldContainer;

/// The fields of one frame in their buffers, and what sending and receiving have in common.
///
/// `Crc` is what the container computes with: an `ICrc` of its own, made of the constructor's
/// further arguments, or a `SharedCrc`.
///
/// Ownership: owns the fields; the buffers are the user's and outlive the container. Two containers
/// must not be given the same one.
/// Thread safety: one thread at a time, the caller's duty; `set_source_match_value` and `set_debug`
/// from any thread.
template <typename... Fields, typename Crc>
class FieldContainer<std::tuple<Fields...>, Crc> {
public:
    using List = std::tuple<Fields...>;
    using Buffers = FrameBuffers<List>;
    static constexpr std::size_t K_FIELD_COUNT = sizeof...(Fields);

    template <FieldName NAME, typename Value>
    using NamedValue = proto::NamedValue<NAME, Value>;
    template <typename Field>
    using NamedCopy = NamedValue<Field::K_NAME, decltype(std::declval<Field const&>().get_copy())>;
    /// What `get_named_copies` returns: an entry for each field, in their order.
    using NamedCopies = std::tuple<NamedCopy<Fields>...>;

    template <typename... CrcArguments>
    explicit FieldContainer(Buffers buffers, CrcArguments&&... crc_arguments)
        : crc_(std::forward<CrcArguments>(crc_arguments)...) {
        std::size_t ordinal = 0;
        for_each_type([&](auto& field) { in_order_[ordinal++] = &field; });
        attach(buffers);
    }
    virtual ~FieldContainer() = default;
    FieldContainer(FieldContainer const&) = delete;
    FieldContainer& operator=(FieldContainer const&) = delete;

    /// As before the first byte of a frame.
    virtual void reset() {
        crc_.reset();
        for (Field* const field : in_order_) {
            field->reset();
        }
        offsets_.fill(0);
        index_ = 0;
    }

    /// Whether there is a field of that kind, from ordinal FROM on.
    template <FieldName NAME, std::size_t FROM = 0>
    static constexpr bool has_field() {
        return K_HAS_FIELD<List, NAME, FROM>;
    }
    /// The first field of that kind, from ordinal FROM on.
    template <FieldName NAME, std::size_t FROM = 0>
    auto& get() {
        return std::get<field_index<List, NAME, FROM>()>(fields_);
    }
    template <FieldName NAME, std::size_t FROM = 0>
    auto const& get() const {
        return std::get<field_index<List, NAME, FROM>()>(fields_);
    }

    /// Applies a function to each field, in order.
    template <typename Function>
    void for_each_type(Function&& function) {
        std::apply([&](auto&... field) { (function(field), ...); }, fields_);
    }

    /// Copies of all fields of a frame that has been received.
    NamedCopies get_named_copies() const {
        return std::apply(
            [](auto const&... field) {
                return NamedCopies(NamedCopy<Fields>{field.get_copy()}...);
            },
            fields_);
    }

    /// Hands the bytes of the fields that `wanted` picks to `use`, in order. Fields that lie one
    /// behind the other come as one piece.
    template <typename Predicate, typename Function>
    void for_each_run(Predicate wanted, Function use) const {
        tessaron::CustomSpan<unsigned char> run;
        for (Field const* const field : in_order_) {
            if (!wanted(*field)) {
                continue;
            }
            auto const bytes = field->bytes();
            if (bytes.data() == run.end()) {
                run = {run.data(), run.size() + bytes.size()};
                continue;
            }
            if (!run.empty()) {
                use(run);
            }
            run = bytes;
        }
        if (!run.empty()) {
            use(run);
        }
    }

    /// The CRC over the fields that take part, as they stand in their buffers.
    unsigned int compute_crc() const {
        unsigned int crc = 0;
        for_each_run([](Field const& field) { return field.has(FieldFlags::InCrc); },
                     [&](auto run) { crc = crc_.append(crc, run); });
        return crc;
    }

    void set_debug(bool debug) noexcept { debug_ = debug; }
    /// What is printed while `debug` is on; at first only why frames broke.
    void set_debug_flags(DebugPrintFlags flags) noexcept { debug_flags_ = flags; }
    bool is_debug(DebugPrintFlags flag) const noexcept {
        return debug_ && has_flag<DebugPrintFlags>(debug_flags_, flag);
    }

    /// What the channel field gets on transmit.
    void set_channel_stamp_value(std::uint16_t channel) noexcept { channel_stamp_value_ = channel; }
    std::uint16_t channel_stamp_value() const noexcept { return channel_stamp_value_; }
    /// The channels, both included, that frames are received from.
    void set_channel_accept_range(std::uint16_t low, std::uint16_t high) noexcept {
        channel_accept_low_ = low;
        channel_accept_high_ = high;
    }
    bool accepts_channel(unsigned long channel) const noexcept {
        return channel >= channel_accept_low_ && channel <= channel_accept_high_;
    }
    /// The address whose frames are the node's own; its low bits are what the source field holds.
    void set_source_match_value(std::uint64_t address) noexcept { source_match_value_ = address; }
    std::uint64_t source_match_value() const noexcept { return source_match_value_; }

    /// The ordinal of the field that is being received.
    std::size_t index() const noexcept { return index_; }

protected:
    /// Gives each field whose declaration brings no check the one for its kind.
    template <typename Checks>
    void use_checks() {
        for_each_type([](auto& field) {
            if (field.matcher() == nullptr) {
                field.set_matcher(
                    Checks::template of<std::remove_reference_t<decltype(field)>::K_NAME>());
            }
        });
    }

    /// The buffers that hold the fields from now on.
    void attach(Buffers const& buffers) {
        for (std::size_t ordinal = 0; ordinal < K_FIELD_COUNT; ++ordinal) {
            in_order_[ordinal]->attach(buffers[K_BUFFERS[ordinal]]);
        }
    }

    std::array<Field*, K_FIELD_COUNT> const& in_order() const noexcept { return in_order_; }

    /// Gives the field of that ordinal its place: behind those before it in the same buffer.
    Field& place(std::size_t ordinal) {
        in_order_[ordinal]->set_offset(offsets_[K_BUFFERS[ordinal]]);
        return *in_order_[ordinal];
    }
    /// The next field of the same buffer will lie behind this one.
    void advance(std::size_t ordinal) {
        Field const& field = *in_order_[ordinal];
        offsets_[K_BUFFERS[ordinal]] = field.get_offset() + field.get_size();
    }

    std::size_t index_ = 0;

private:
    static constexpr std::array<unsigned, K_FIELD_COUNT> K_BUFFERS{Fields::K_BUFFER...};

    std::atomic<std::uint64_t> source_match_value_{~std::uint64_t{0}};
    std::uint16_t channel_stamp_value_ = 0;
    std::uint16_t channel_accept_low_ = 0;
    std::uint16_t channel_accept_high_ = 0;
    std::atomic<bool> debug_{false};
    std::tuple<Fields...> fields_;
    std::array<Field*, K_FIELD_COUNT> in_order_{};
    std::array<unsigned long, K_BUFFER_COUNT<List>> offsets_{}; ///< The first free ones.
    Crc crc_;
    std::atomic<DebugPrintFlags> debug_flags_{DebugPrintFlags::Broken};
};

} // namespace proto
