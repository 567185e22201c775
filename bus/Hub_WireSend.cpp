#include "bus/Hub.hpp"
#include "libraries/compression/zlibCompression/payload_compression.hpp"

#include <algorithm>
#include <cassert>

// Everything that a hub sends. Runs on whatever thread sends; touches what is retained, through
// Hub_PubSub.cpp, the routes and the trace.

namespace tessaron::bus {
namespace {

static_assert(Hub::K_MAX_DATA_FIELD_CHUNK_SIZE + Hub::K_MAX_FRAME_OVERHEAD ==
              Hub::MAX_PAYLOAD_SIZE);
static_assert(Hub::K_MAX_MESSAGE_SIZE == FragmentAssembler::K_MAX_MESSAGE_SIZE);

/// The frames of one message leave together.
class Burst {
public:
    explicit Burst(BusWire& wire) : wire_(wire) { wire_.begin_burst(); }
    ~Burst() { wire_.end_burst(); }
    Burst(Burst const&) = delete;
    Burst& operator=(Burst const&) = delete;

private:
    BusWire& wire_;
};

} // namespace

std::size_t Hub::send_envelope(MessageType type, std::uint32_t dest, Bytes const& payload,
                               std::uint16_t topic_id) {
    return send_envelope_with_id(type, dest, next_msg_id(), 0, payload, 0, topic_id, "");
}

std::size_t Hub::send_envelope_with_id(MessageType type, std::uint32_t dest, std::uint32_t msg_id,
                                       std::uint16_t frag_index, Bytes const& payload,
                                       std::uint32_t local_source, std::uint16_t topic_id,
                                       std::string const& topic_name) {
    WireFrame header;
    header.type = type;
    header.dest = dest;
    header.msg_id = msg_id;
    header.frag_index = frag_index;
    header.topic_id = topic_id;
    if (local_source != 0) {
        header.origin = Origin(settings_.domain, static_cast<std::uint16_t>(local_source));
    }
    return send_envelope_with_origin(header, payload, local_source, topic_name);
}

std::size_t Hub::send_envelope_with_origin(WireFrame const& header, Bytes const& payload,
                                           std::uint32_t local_source,
                                           std::string const& topic_name) {
    if (payload.size() > K_MAX_MESSAGE_SIZE) {
        return 0;
    }
    std::uint32_t const source = local_source != 0 ? local_source : address();
    bool const is_event = header.type == MessageType::EVENT;
    bool const is_for_all = header.dest == BROADCAST_ADDRESS || header.dest == settings_.domain;
    topics_.register_name(header.topic_id, topic_name);
    if (is_event && is_for_all && !topic_name.empty()) {
        retain(topic_name, payload, header.msg_id);
    }
    std::string const resolved =
        topic_name.empty() && header.topic_id != 0 ? topics_.resolve_name(header.topic_id) : "";
    std::string const& topic = topic_name.empty() ? resolved : topic_name;
    deliver_to_local_clients(header, payload, source,
                             header.origin ? route_key_for(*header.origin) : source, local_source,
                             topic);
    // The wire would not bring it back: a node drops its own frames.
    if (is_event && local_source != 0 && (is_for_all || header.dest == address())) {
        dispatch_event_handlers(Origin(settings_.domain, static_cast<std::uint16_t>(local_source)),
                                header.msg_id, header.topic_id, topic, payload);
    }
    record_bus_trace(BusTraceEntry::K_SENT, header.type, source, header.dest, header.msg_id,
                     payload, topic);
    return send_on_wire(header, payload);
}

void Hub::record_bus_trace(char direction, MessageType type, std::uint32_t source,
                           std::uint32_t destination, std::uint32_t msg_id, Bytes const& payload,
                           std::string_view topic) noexcept {
    using std::chrono::microseconds;
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    trace_.record(
        {static_cast<std::uint64_t>(std::chrono::duration_cast<microseconds>(now).count()),
         direction, type, source, destination, msg_id},
        payload, topic);
}

std::size_t Hub::send_on_wire(WireFrame const& header, Bytes const& payload) {
    WireFrame sent;
    sent.type = header.type;
    sent.dest = header.dest;
    sent.msg_id = header.msg_id;
    sent.frag_index = header.frag_index;
    sent.frag_flags = header.frag_flags;
    sent.ttl = header.ttl;
    sent.origin = header.origin;
    sent.topic_id = header.topic_id;
    sent.uncompressed_size = header.uncompressed_size;
    if (compression_enabled_ && sent.frag_flags == 0 && payload.size() > K_MIN_COMPRESSED_SIZE) {
        auto const compressed = proto::compression::compress_payload(payload);
        if (compressed && compressed->size() < payload.size()) {
            sent.frag_flags = K_FRAG_FLAG_COMPRESSED;
            sent.uncompressed_size = static_cast<std::uint32_t>(payload.size());
            return send_whole_or_in_fragments(sent, *compressed);
        }
    }
    return send_whole_or_in_fragments(sent, payload);
}

std::size_t Hub::send_whole_or_in_fragments(WireFrame& header, Bytes const& payload) {
    if (payload.size() <= K_MAX_DATA_FIELD_CHUNK_SIZE) {
        assert(payload.size() + K_MAX_FRAME_OVERHEAD <= MAX_PAYLOAD_SIZE &&
               "Hub: single frame would exceed MAX_PAYLOAD_SIZE once framing overhead is included "
               "- every Hub<> buffer in this codebase is sized for exactly that ceiling");
        return wire_.send(header, {payload.data(), payload.size()});
    }
    auto const flags = static_cast<std::uint8_t>(K_FRAG_FLAG_FRAGMENT |
                                                 (header.frag_flags & K_FRAG_FLAG_COMPRESSED));
    Burst const burst(wire_);
    std::size_t sent = 0;
    header.frag_index = 0;
    for (std::size_t begin = 0; begin < payload.size(); begin += K_MAX_DATA_FIELD_CHUNK_SIZE) {
        std::size_t const size = std::min(payload.size() - begin, K_MAX_DATA_FIELD_CHUNK_SIZE);
        bool const is_last = begin + size == payload.size();
        header.frag_flags = static_cast<std::uint8_t>(flags | (is_last ? K_FRAG_FLAG_LAST : 0));
        std::size_t const frame_size = wire_.send(header, {payload.data() + begin, size});
        if (frame_size == 0) {
            return 0;
        }
        sent += frame_size;
        ++header.frag_index;
    }
    return sent;
}

std::size_t Hub::forward_frame(WireFrame const& frame) {
    if (frame.ttl == 0) {
        return 0;
    }
    auto const route = routes_.find(frame.dest);
    // A route on this bus is none for a frame that came by it: everybody there has heard it, and
    // would send it again in turn.
    if (!route || !route->forward) {
        return 0;
    }
    WireFrame next = frame;
    --next.ttl;
    BusWire::Slow const slow(wire_); // The other transport may be.
    route->forward(route->via, next);
    return frame.data.size();
}

} // namespace tessaron::bus
