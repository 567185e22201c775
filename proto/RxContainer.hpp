#pragma once

#include "proto/FieldContainer.hpp"
#include "proto/rx_checks.hpp"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

namespace proto {

/// Turns a stream of bytes, in chunks of any size, into frames.
///
/// It works on one field at a time: its bytes are copied to their place in the buffer, and the
/// field's check says whether the frame can go on. A frame that breaks is dropped, and the next one
/// is searched for by its prefix, from the first byte of the field that broke, as far as it came in
/// the current chunk; the fields before that one are given up. There is no time-out: a frame whose
/// end never comes is overtaken when later bytes break it.
///
///     prefix -> field 1 -> ... -> last field: the callbacks run, and all begins anew
///       ^          |
///       +----------+ a mismatch, from any field
///
/// Ownership: receivers keep the shared pointer that `add_receive_callback` returned for as long as
/// they want to hear.
/// Thread safety: one thread at a time, the caller's duty: the transport's reader. Callbacks run on
/// that thread, with no locks held, and see the frame in the container until they return.
/// Errors: none; broken frames are told of on standard output if `debug` is on. Nothing is
/// allocated until a frame is complete, and whatever comes, nothing is written outside the buffers.
template <typename Fields, typename Crc>
class RxContainer final : public FieldContainer<Fields, Crc> {
    using Base = FieldContainer<Fields, Crc>;

public:
    using Bytes = tessaron::CustomSpan<unsigned char>;
    using FrameCallback = std::function<void(RxContainer&)>;

    template <typename... CrcArguments>
    explicit RxContainer(typename Base::Buffers buffers, CrcArguments&&... crc_arguments)
        : Base(buffers, std::forward<CrcArguments>(crc_arguments)...), buffers_(buffers) {
        this->template use_checks<RxChecks<RxContainer>>();
        this->reset();
    }

    /// Callbacks run from the last added to the first.
    [[nodiscard]] std::shared_ptr<FrameCallback>
    add_receive_callback(FrameCallback const& callback) {
        auto shared = std::make_shared<FrameCallback>(callback);
        callbacks_.push_back(shared);
        return shared;
    }

    /// Feeds a chunk at whose begin a frame begins, or none: half a frame, or bytes that began like
    /// one, must not take the next one with them. What it leaves unfinished is given up as well. If
    /// the fields may stand where they came, they are not copied; the chunk is never written to.
    void fill_with_whole(Bytes const& chunk, unsigned long& consumed) {
        give_up_unfinished();
        if constexpr (!K_MAY_STAND_WHERE_IT_CAME) {
            fill(chunk, consumed);
        } else {
            Bytes rest = chunk;
            while (!rest.empty()) {
                if (this->index_ == 0) {
                    // As large as the own one, which a frame must have room in; what lies behind
                    // the chunk is not touched.
                    this->attach({Bytes(rest.data(), buffers_[0].size())});
                }
                unsigned long const used = step(rest);
                consumed += used;
                rest = rest.subspan(used);
            }
            this->attach(buffers_);
        }
        give_up_unfinished();
    }

    /// Feeds a chunk, and adds to `consumed` what was used of it: all.
    void fill(Bytes const& chunk, unsigned long& consumed) {
        Bytes rest = chunk;
        while (!rest.empty()) {
            unsigned long const used = step(rest);
            consumed += used;
            rest = rest.subspan(used);
        }
    }

private:
    /// In one buffer, and in the order of the wire.
    template <typename List>
    struct StandsAsOnTheWire;
    template <typename... Each>
    struct StandsAsOnTheWire<std::tuple<Each...>> {
        static constexpr bool VALUE = K_BUFFER_COUNT<Fields> == 1 &&
                                      !(has_flag(Each::K_FLAGS, FieldFlags::ByteSwapped) || ...);
    };
    static constexpr bool K_MAY_STAND_WHERE_IT_CAME = StandsAsOnTheWire<Fields>::VALUE;

    void give_up_unfinished() {
        if (this->index_ != 0 || this->place(0).read() > 0) {
            this->reset();
        }
    }

    /// Receives (a part of) the current field; returns the bytes used.
    unsigned long step(Bytes chunk) {
        Field& field = this->place(this->index_);
        bool const is_resumed = field.read() > 0;
        if (this->index_ == 0 && !is_resumed) {
            unsigned long const skipped = field.count_before_constant(chunk);
            if (skipped > 0) {
                return skipped;
            }
        }
        auto const [status, used] = receive(field, chunk);
        switch (status) {
        case MatchStatus::Incomplete:
            return used;
        case MatchStatus::Match:
            this->advance(this->index_);
            if (++this->index_ == Base::K_FIELD_COUNT) {
                run_callbacks();
                this->reset();
            }
            return used;
        case MatchStatus::Mismatch:
            break;
        }
        bool const at_prefix = this->index_ == 0;
        if (!at_prefix && this->is_debug(DebugPrintFlags::Broken)) {
            print_broken_packet();
        }
        this->reset();
        // A byte that broke a prefix begun in an earlier chunk may itself begin one.
        return at_prefix && !is_resumed ? std::max(used, 1UL) : 0;
    }

    Field::Taken receive(Field& field, Bytes chunk) {
        if (field.get_size() == 0) {
            return {MatchStatus::Match, 0}; // Nothing to receive and nothing to check.
        }
        Field::Taken taken = field.take(chunk);
        if (taken.status == MatchStatus::Match && field.matcher() != nullptr) {
            unsigned long const before = field.read();
            taken.status = field.matcher()(this);
            taken.count -= std::min(taken.count, before - field.read());
        }
        return taken;
    }

    void run_callbacks() {
        for (std::size_t i = callbacks_.size(); i-- > 0;) {
            if (auto const callback = callbacks_[i].lock()) {
                (*callback)(*this);
            } else {
                callbacks_.erase(callbacks_.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }

    void print_broken_packet() {
        detail::print_broken_packet_start();
        for (std::size_t i = 0; i <= this->index_; ++i) {
            detail::print_field_bytes(*this->in_order()[i]);
        }
        detail::print_broken_packet_stop();
    }

    typename Base::Buffers const buffers_;
    std::vector<std::weak_ptr<FrameCallback>> callbacks_;
};

} // namespace proto
