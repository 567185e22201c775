#include "bus/Hub.hpp"
#include "bus/LocalClient.hpp"
#include "proto/bus/topic_match.hpp"

// The clients of this process: what they do on the bus through their hub, and what reaches them.
// Runs on the clients' threads, and on whatever thread delivers; touches the registry of clients.

namespace tessaron::bus {

using proto::bus::topic_hash;

std::shared_ptr<LocalClient> Hub::connect(std::uint32_t address, NodeIdentity const& identity) {
    auto client = LocalClient::make(address, identity, make_client_bindings(address));
    register_local_client(address, client->weak_from_this());
    return client;
}

void Hub::register_local_client(std::uint32_t address, std::weak_ptr<LocalClient> client) {
    bool const is_one_wanted = !local_clients_.wanted().empty();
    local_clients_.register_client(address, std::move(client));
    if (ready_ && is_one_wanted && local_clients_.wanted().empty()) {
        announce(); // Now all that addresses were asked for have names.
    }
}

LocalClientBindings Hub::make_client_bindings(std::uint32_t address) {
    LocalClientBindings bindings;
    bindings.send_event = [this, address](std::uint32_t target, std::string const& topic,
                                          Bytes const& payload) {
        auto const topic_id = topic_hash(topic.c_str());
        topics_.register_name(topic_id, topic);
        return send_client_event(address, target, topic_id, "", payload);
    };
    bindings.publish_to = [this, address](std::uint32_t target, std::string const& topic,
                                          Bytes const& payload) {
        advertise_if_new(topic);
        return send_client_event(address, target, topic_hash(topic.c_str()), topic, payload);
    };
    bindings.discovered_devices = [this] { return discovered_devices(); };
    bindings.next_msg_id = [this] { return next_msg_id(); };
    bindings.send_request = [this, address](std::uint32_t target, std::uint32_t msg_id,
                                            std::uint16_t topic_id, Bytes const& payload) {
        return send_envelope_with_id(MessageType::REQUEST, target, msg_id, 0, payload, address,
                                     topic_id, "");
    };
    bindings.send_response = [this, address](std::uint32_t target, std::uint32_t msg_id,
                                             Bytes const& payload) {
        return send_envelope_with_id(MessageType::RESPONSE, target, msg_id, 0, payload, address, 0,
                                     "");
    };
    bindings.advertise = [this](std::string const& topic, std::string const& description,
                                proto::bus::TopicKind kind,
                                std::vector<proto::bus::TopicParam> const& params,
                                bool flag) { advertise(topic, description, kind, params, flag); };
    bindings.refresh_debug_marker = [this](std::string const& pattern,
                                           std::string const& description) {
        note_subscription(pattern, description);
    };
    bindings.matching_retained_events = [this](std::string const& pattern) {
        return matching_retained_events(pattern);
    };
    bindings.emit_warning = [this](std::string const& text) { emit_warning(text); };
    return bindings;
}

std::uint32_t Hub::send_client_event(std::uint32_t client, std::uint32_t target,
                                     std::uint16_t topic_id, std::string const& topic_name,
                                     Bytes const& payload) {
    std::uint32_t const msg_id = next_msg_id();
    send_envelope_with_id(MessageType::EVENT, target, msg_id, 0, payload, client, topic_id,
                          topic_name);
    return msg_id;
}

bool Hub::deliver_to_local_clients(WireFrame const& message, Bytes const& payload,
                                   std::uint32_t source, std::uint32_t return_route,
                                   std::optional<std::uint32_t> excluded,
                                   std::string const& topic) {
    auto clients = local_clients_.live_snapshot();
    bool const is_for_hub = message.dest == BROADCAST_ADDRESS || message.dest == address_;
    std::erase_if(clients, [&](auto const& entry) {
        auto const& [address, client] = entry;
        if (address == excluded) {
            return true;
        }
        if (address == message.dest) {
            return false;
        }
        bool const is_unwanted_event = message.type == MessageType::EVENT &&
                                       !client->has_event_subscription(message.topic_id, topic);
        return !is_for_hub || is_unwanted_event;
    });
    if (clients.empty()) {
        return false;
    }
    Frame frame;
    frame.type = message.type;
    frame.source = source;
    frame.destination = message.dest;
    frame.msg_id = message.msg_id;
    frame.frag_index = message.frag_index;
    frame.ttl = message.ttl;
    frame.wire_tag = message.frag_flags;
    frame.payload = payload;
    frame.return_route = return_route;
    frame.topic_id = message.topic_id;
    frame.topic = topic;
    BusWire::Slow const slow(wire_); // Handlers of events are called at once.
    for (std::size_t i = 0; i + 1 < clients.size(); ++i) {
        clients[i].second->push(frame);
    }
    clients.back().second->push(std::move(frame));
    return true;
}

} // namespace tessaron::bus
