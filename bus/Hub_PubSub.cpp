#include "bus/Hub.hpp"
#include "bus/payload_text.hpp"

// Events: publishing, hearing, and what is retained for those who come later. Publishing runs on
// the caller's thread, handlers on the wire's worker or, for what a client of this process
// publishes, on the client's caller's. Touches what this node offers and wants.

namespace tessaron::bus {

using proto::bus::topic_hash;

void Hub::publish(std::string const& topic, Envelope const& envelope) {
    advertise_if_new(topic);
    publish_event(topic, encode_envelope(envelope));
}

void Hub::publish_event(std::string const& topic, Bytes const& payload) {
    std::uint32_t const msg_id = next_msg_id();
    if (payload.size() > K_MAX_MESSAGE_SIZE) {
        retain(topic, payload, msg_id); // It is not sent, but what was retained before is outdated.
        return;
    }
    send_envelope_with_id(MessageType::EVENT, BROADCAST_ADDRESS, msg_id, 0, payload, 0,
                          topic_hash(topic.c_str()), topic);
}

void Hub::advertise(std::string const& topic, std::string const& description,
                    proto::bus::TopicKind kind, std::vector<proto::bus::TopicParam> const& params,
                    bool flag) {
    topics_.register_name(topic_hash(topic.c_str()), topic);
    {
        MutexLock lock(state_mutex_);
        publications_[topic] = {topic, description, kind, params, flag};
    }
    refresh_debug_marker();
}

void Hub::advertise_if_new(std::string const& topic) {
    MutexLock lock(state_mutex_);
    auto const [entry, is_new] = publications_.try_emplace(topic);
    if (is_new) {
        entry->second.name = topic;
    }
}

void Hub::subscribe(std::string const& topic, EventHandler handler, std::string description) {
    subscribe_pattern(
        topic,
        [handler = std::move(handler)](std::string const&, Bytes const& payload, Origin const&) {
            handler(decode_envelope(payload));
        },
        description);
}

void Hub::subscribe_pattern(std::string const& pattern, PatternHandler handler,
                            std::string const& description) {
    auto shared = std::make_shared<PatternHandler const>(std::move(handler));
    {
        MutexLock lock(state_mutex_);
        event_handlers_.add(pattern, std::move(shared));
    }
    note_subscription(pattern, description);
    send_envelope(MessageType::SUBSCRIBE_REQUEST, BROADCAST_ADDRESS,
                  encode_identity_and_topic(identity_snapshot(), pattern));
}

void Hub::note_subscription(std::string const& pattern, std::string const& description) {
    topics_.register_name(topic_hash(pattern.c_str()), pattern);
    {
        MutexLock lock(state_mutex_);
        subscribed_[pattern] = description;
    }
    refresh_debug_marker();
}

std::vector<std::pair<std::string, Hub::Bytes>>
Hub::matching_retained_events(std::string const& pattern) const {
    return topics_.matching_retained(pattern);
}

void Hub::retain(std::string const& topic, Bytes const& payload, std::uint32_t msg_id) {
    MutexLock lock(state_mutex_);
    topics_.retain(topic, payload);
    last_retained_id_[topic] = msg_id;
}

void Hub::handle_subscribe_request(std::uint32_t source, Bytes const& data) {
    struct Match {
        std::string topic;
        std::optional<Bytes> payload;
        std::uint32_t msg_id = 0;
    };
    std::vector<Match> matches;
    std::string const pattern = proto::bus::decode_topic_after_identity(data);
    {
        MutexLock lock(state_mutex_);
        auto const now = Clock::now();
        for (auto const& [topic, description] : publications_) {
            if (!proto::bus::glob_match(pattern, topic)) {
                continue;
            }
            upsert_lease(subscriber_leases_, topic, source, now);
            Match match{topic, topics_.retained(topic), 0};
            if (match.payload) {
                auto const id = last_retained_id_.find(topic);
                match.msg_id = id != last_retained_id_.end() ? id->second : next_msg_id();
            }
            matches.push_back(std::move(match));
        }
    }
    NodeIdentity const identity = identity_snapshot();
    for (auto const& [topic, payload, msg_id] : matches) {
        send_envelope(MessageType::SUBSCRIBE_RESPONSE, source,
                      encode_identity_and_topic(identity, topic));
        if (payload) {
            send_envelope_with_id(MessageType::EVENT, source, msg_id, 0, *payload, 0,
                                  topic_hash(topic.c_str()), "");
        }
    }
}

void Hub::handle_subscribe_response(std::uint32_t source, Bytes const& data) {
    std::string const topic = proto::bus::decode_topic_after_identity(data);
    if (topic.empty()) {
        return;
    }
    topics_.register_name(topic_hash(topic.c_str()), topic);
    MutexLock lock(state_mutex_);
    upsert_lease(publisher_leases_, topic, source, Clock::now());
}

void Hub::handle_unsubscribe_request(std::uint32_t source, Bytes const& data) {
    std::string const pattern = proto::bus::decode_topic_after_identity(data);
    MutexLock lock(state_mutex_);
    erase_leases(subscriber_leases_, pattern, source);
}

void Hub::dispatch_event_handlers(Origin const& origin, std::uint32_t msg_id,
                                  std::uint16_t topic_id, std::string const& name,
                                  Bytes const& payload) {
    std::vector<SharedPatternHandler> handlers;
    {
        MutexLock lock(state_mutex_);
        handlers = event_handlers_.find(topic_id, name);
        // What nobody here was called for has not been heard: who subscribes now is yet to get it.
        if (handlers.empty() ||
            last_events_.is_repeated(origin.local_address(), topic_id, msg_id)) {
            return;
        }
    }
    for (auto const& handler : handlers) {
        run_event_handler(*handler, name, payload, origin);
    }
}

void Hub::run_event_handler(PatternHandler const& handler, std::string const& name,
                            Bytes const& payload, Origin const& origin) const {
    BusWire::Slow const slow(wire_);
    try {
        handler(name, payload, origin);
    } catch (std::exception const& error) {
        emit_warning("[bus] EVENT handler for '" + name +
                     "' threw on this payload (malformed/unexpected?): " + error.what() + " [" +
                     format_bus_trace_data(payload) + "]");
    } catch (...) {
        emit_warning("[bus] EVENT handler for '" + name +
                     "' threw a non-std::exception on this payload");
    }
}

} // namespace tessaron::bus
