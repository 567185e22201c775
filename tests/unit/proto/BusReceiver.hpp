#pragma once

#include "proto/ProtocolEndpoint.hpp"
#include "proto/SharedCrc.hpp"
#include "proto/bus/bus_frame.hpp"
#include "tests/unit/proto/bus_frame_model.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <variant>
#include <vector>

namespace proto::test {

using BusRx = RxContainer<bus::BusFrame, BitwiseCrc>;
using BusTx = TxContainer<bus::BusFrame, BitwiseCrc>;
using BusEndpoint = ProtocolEndpoint<bus::BusFrame, bus::BusFrame, BitwiseCrc>;

template <typename Named>
FrameModel to_model(Named const& named) {
    FrameModel frame;
    frame.version = meta::get_named<VERSION_FIELD>(named);
    frame.type = meta::get_named<TYPE_FIELD>(named);
    frame.channel = meta::get_named<CHANNEL_FIELD>(named);
    frame.source = meta::get_named<SOURCE_FIELD>(named);
    frame.options = meta::get_named<OPT_FIELD>(named);
    frame.dest = meta::get_named<DEST_FIELD>(named);
    if (auto const* const bytes = std::get_if<Bytes>(&meta::get_named<DATA_FIELD>(named))) {
        frame.data = *bytes;
    }
    return frame;
}

/// Receives bus frames on channel 0, as node `K_OWN_ADDRESS`, and keeps what it got.
class BusReceiver {
public:
    static constexpr unsigned K_OWN_ADDRESS = 0x0A0B;

    BusReceiver() {
        rx_.set_source_match_value(K_OWN_ADDRESS);
        callback_ = rx_.add_receive_callback(
            [this](BusRx& rx) { copies_.push_back(rx.get_named_copies()); });
    }

    /// One chunk. It stands in memory of its own, so that reading past it is noticed.
    void feed(Bytes chunk) {
        unsigned long used = 0;
        rx_.fill(span_of(chunk), used);
    }

    /// One chunk, which holds whole frames. It must come out as it went in.
    void feed_whole(Bytes const& stream) {
        Bytes chunk = stream;
        chunk.shrink_to_fit();
        unsigned long used = 0;
        rx_.fill_with_whole(span_of(chunk), used);
        is_intact_ = is_intact_ && used == stream.size() && chunk == stream;
    }
    /// Whether all that was fed as a whole was used up, and left as it was.
    bool is_intact() const { return is_intact_; }

    void feed_in_chunks(Bytes const& stream, ChunkEnds const& ends) {
        std::size_t begin = 0;
        for (std::size_t const end : ends) {
            feed(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(begin),
                       stream.begin() + static_cast<std::ptrdiff_t>(end)));
            begin = end;
        }
    }

    void feed_in_pieces(Bytes const& stream, std::size_t size) {
        ChunkEnds ends;
        for (std::size_t end = 0; end < stream.size();) {
            end = std::min(end + size, stream.size());
            ends.push_back(end);
        }
        feed_in_chunks(stream, ends);
    }

    BusRx& rx() { return rx_; }
    std::vector<BusRx::NamedCopies> const& copies() const { return copies_; }
    std::vector<FrameModel> frames() const {
        std::vector<FrameModel> frames;
        for (auto const& named : copies_) {
            frames.push_back(to_model(named));
        }
        return frames;
    }

private:
    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(bus::MAX_PAYLOAD_SIZE);
    BusRx rx_{{tessaron::CustomSpan<unsigned char>(buffer_.data(), buffer_.size())}};
    std::vector<BusRx::NamedCopies> copies_;
    bool is_intact_ = true;
    std::shared_ptr<BusRx::FrameCallback> callback_;
};

} // namespace proto::test
