#include "bus/Hub.hpp"
#include "libraries/compression/zlibCompression/payload_compression.hpp"
#include "proto/bus/topic_match.hpp"

// Everything that a hub receives: what is for it or its clients is put together and delivered, the
// rest forwarded. Runs on the wire's worker, and for frames that another hub passes on, on that
// one's. Touches the fragments, the routes and the count of foreign versions.

namespace tessaron::bus {
namespace {

/// In place of the sequence of bytes that was sent, the one that was meant.
bool decompress_if_flagged(WireFrame& message) {
    if ((message.frag_flags & K_FRAG_FLAG_COMPRESSED) == 0) {
        return true;
    }
    if (message.uncompressed_size == 0 || message.uncompressed_size > Hub::K_MAX_MESSAGE_SIZE) {
        return false;
    }
    auto payload = proto::compression::decompress_payload(message.data.data(), message.data.size(),
                                                          message.uncompressed_size);
    if (!payload) {
        return false;
    }
    message.data = std::move(*payload);
    return true;
}

} // namespace

bool Hub::is_for_this_node(std::uint32_t dest) const {
    return dest == BROADCAST_ADDRESS || dest == address_ || dest == settings_.domain;
}

std::uint32_t Hub::route_key_for(Origin const& origin) const {
    return origin.hub_address() == settings_.domain ? origin.local_address() : origin.hub_address();
}

bool Hub::is_own_or_twins(WireFrame const& frame) const {
    // Only while the address is contested, and then the announcements must be heard.
    return ready_ && frame.source == (address_ & 0xFFFF) &&
           frame.type != MessageType::DISCOVERY_RESPONSE;
}

void Hub::dispatch(ReceivedFrame&& received) {
    if (received.version != PROTOCOL_VERSION) {
        ++version_mismatch_drops_;
        report_version_mismatch(received.version);
        return;
    }
    WireFrame& frame = received.frame;
    if (is_own_or_twins(frame)) {
        return;
    }
    if (frame.type == MessageType::RESPONSE) {
        presence_.heard(frame.source, Clock::now()); // Whoever it answers.
    }
    if (is_for_this_node(frame.dest) || local_clients_.has(frame.dest)) {
        dispatch_for_this_node(std::move(frame), received.has_data);
    } else if (received.has_data) {
        forward_frame(frame);
    }
}

void Hub::dispatch_for_this_node(WireFrame&& frame, bool has_data) {
    if ((frame.frag_flags & K_FRAG_FLAG_FRAGMENT) == 0) {
        dispatch_complete(std::move(frame), has_data);
    } else if (has_data) {
        if (auto message = fragments_.add(std::move(frame), Clock::now())) {
            dispatch_complete(std::move(*message), true);
        }
    }
}

void Hub::dispatch_complete(WireFrame&& message, bool has_data) {
    if (has_data && !decompress_if_flagged(message)) {
        return;
    }
    std::string const topic =
        message.topic_id != 0 ? topics_.resolve_name(message.topic_id) : std::string();
    if (has_data) {
        std::uint32_t const source =
            message.origin ? message.origin->local_address() : message.source;
        std::uint32_t const return_route =
            message.origin ? route_key_for(*message.origin) : message.source;
        record_bus_trace(BusTraceEntry::K_RECEIVED, message.type, source, message.dest,
                         message.msg_id, message.data, topic);
        deliver_to_local_clients(message, message.data, source, return_route, std::nullopt, topic);
    }
    if (is_for_this_node(message.dest)) {
        process_own_domain_traffic(std::move(message), has_data, topic);
    }
}

void Hub::process_own_domain_traffic(WireFrame&& message, bool has_data, std::string const& topic) {
    if (message.type == MessageType::DISCOVERY_REQUEST) {
        handle_discovery_request(message.source);
        return;
    }
    if (!has_data) {
        return;
    }
    switch (message.type) {
    case MessageType::SUBSCRIBE_REQUEST:
        handle_subscribe_request(message.source, message.data);
        break;
    case MessageType::SUBSCRIBE_RESPONSE:
        handle_subscribe_response(message.source, message.data);
        break;
    case MessageType::UNSUBSCRIBE_REQUEST:
        handle_unsubscribe_request(message.source, message.data);
        break;
    case MessageType::DISCOVERY_RESPONSE:
        handle_discovery_response(message.source, message.data);
        break;
    case MessageType::EVENT:
        dispatch_event_handlers(message.origin.value_or(Origin(
                                    settings_.domain, static_cast<std::uint16_t>(message.source))),
                                message.msg_id, message.topic_id, topic, message.data);
        break;
    case MessageType::REQUEST:
        if (!is_silenced(message)) {
            handle_request(std::move(message), topic);
        }
        break;
    case MessageType::RESPONSE:
        pending_.deliver(message.msg_id, message.source, std::move(message.data));
        break;
    default:
        break;
    }
}

bool Hub::is_silenced(WireFrame const& request) const {
    static constexpr std::uint16_t K_DISCOVER_NETWORK =
        proto::bus::topic_hash("bus.discover_network");
    return skip_broadcast_discovery_ && request.topic_id == K_DISCOVER_NETWORK &&
           (request.dest == BROADCAST_ADDRESS || request.dest == settings_.domain);
}

void Hub::report_version_mismatch(std::uint8_t version) {
    auto const now = Clock::now().time_since_epoch().count();
    auto last = last_version_warning_.load();
    if (last != K_NEVER_WARNED &&
        Clock::duration(now - last) < K_VERSION_MISMATCH_WARNING_INTERVAL) {
        return;
    }
    if (last_version_warning_.compare_exchange_strong(last, now)) {
        emit_warning("[bus] PROTOCOL_VERSION mismatch: received frame with version=" +
                     std::to_string(version) +
                     ", this side runs version=" + std::to_string(PROTOCOL_VERSION) +
                     " - frame dropped (silently, before this warning: see "
                     "version_mismatch_drops() for the running total). Usually means the two "
                     "sides were built against different protolib versions.");
    }
}

void Hub::add_route(std::uint32_t low, std::uint32_t high, RouteForward const& forward,
                    bool direct) {
    for (std::uint64_t address = low; address <= high && address - low < RoutingTable::K_MAX_ROUTES;
         ++address) {
        auto const destination = static_cast<std::uint32_t>(address);
        routes_.add(destination, destination, forward, direct);
    }
}

bool Hub::has_local_route(std::uint32_t address) const {
    auto const route = routes_.find(address);
    return route && route->forward;
}

void Hub::inject_frame(WireFrame frame) {
    if (!frame.origin) {
        frame.origin = Origin(settings_.domain, static_cast<std::uint16_t>(frame.source));
    }
    bool const is_for_others = frame.dest == BROADCAST_ADDRESS ||
                               !(is_for_this_node(frame.dest) || local_clients_.has(frame.dest));
    if (is_for_others) {
        send_on_wire(frame, frame.data);
    }
    if (!is_for_others || frame.dest == BROADCAST_ADDRESS) {
        dispatch_for_this_node(std::move(frame), true);
    }
}

void Hub::learn_routes(std::vector<proto::bus::DiscoveryRecord> const& records) {
    for (auto const& record : records) {
        if (record.hops == 1 && record.address != settings_.domain && record.address != address_) {
            routes_.add_if_absent(record.address, record.address, nullptr, true);
        }
    }
}

} // namespace tessaron::bus
