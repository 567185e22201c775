#pragma once

#include "bus/LocalClient.hpp"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::test {

/// The hub's side of a client: notes what the client asks of it, and answers as it was told.
///
/// Thread safety: safe from any thread; `retained` and `answer` are set before the client is used.
class ScriptedHub {
public:
    using Bytes = proto::bus::Bytes;

    struct Event {
        std::uint32_t target;
        std::string topic;
        Bytes payload;
        bool retained;

        bool operator==(Event const&) const = default;
    };
    struct Request {
        std::uint32_t target;
        std::uint32_t msg_id;
        std::uint16_t topic_id;
        Bytes payload;
    };
    struct Response {
        std::uint32_t target;
        std::uint32_t msg_id;
        Bytes payload;

        bool operator==(Response const&) const = default;
    };
    struct Advert {
        std::string topic;
        std::string description;
        proto::bus::TopicKind kind;
        std::vector<proto::bus::TopicParam> params;
        bool flag;

        bool operator==(Advert const&) const = default;
    };

    bus::LocalClientBindings bindings() {
        return {
            .send_event =
                [this](auto target, auto const& topic, auto const& payload) {
                    return add_event(target, topic, payload, false);
                },
            .publish_to =
                [this](auto target, auto const& topic, auto const& payload) {
                    return add_event(target, topic, payload, true);
                },
            .discovered_devices = [this] { return devices; },
            .next_msg_id = [this] { return next_id_++; },
            .send_request =
                [this](auto target, auto msg_id, auto topic_id, auto const& payload) {
                    if (answer) {
                        answer({target, msg_id, topic_id, payload});
                    }
                    return payload.size();
                },
            .send_response =
                [this](auto target, auto msg_id, auto const& payload) {
                    add(responses_, {target, msg_id, payload});
                    return payload.size();
                },
            .advertise =
                [this](auto const& topic, auto const& description, auto kind, auto const& params,
                       bool flag) {
                    add(adverts_, {topic, description, kind, params, flag});
                },
            .refresh_debug_marker =
                [this](auto const& pattern, auto const& description) {
                    add(heard_, {pattern, description});
                },
            .matching_retained_events =
                [this](auto const& pattern) {
                    return retained ? retained(pattern) : bus::ReplayedHandler::Retained();
                },
            .emit_warning = [this](auto const& text) { add(warnings_, text); },
        };
    }

    std::shared_ptr<bus::LocalClient> connect(std::uint32_t address = 7) {
        return bus::LocalClient::make(address, proto::bus::make_identity("service", "program", 1),
                                      bindings());
    }

    std::vector<Event> events() const { return copy(events_); }
    std::vector<Response> responses() const { return copy(responses_); }
    std::vector<Advert> adverts() const { return copy(adverts_); }
    std::vector<std::pair<std::string, std::string>> heard() const { return copy(heard_); }
    std::vector<std::string> warnings() const { return copy(warnings_); }

    std::unordered_map<std::uint32_t, bus::DiscoveredDevice> devices;
    std::function<bus::ReplayedHandler::Retained(std::string const& pattern)> retained;
    std::function<void(Request const&)> answer;

private:
    std::uint32_t add_event(std::uint32_t target, std::string const& topic, Bytes const& payload,
                            bool is_retained) {
        add(events_, {target, topic, payload, is_retained});
        return next_id_++;
    }
    template <typename T>
    void add(std::vector<T>& list, T value) {
        MutexLock lock(mutex_);
        list.push_back(std::move(value));
    }
    template <typename T>
    std::vector<T> copy(std::vector<T> const& list) const {
        MutexLock lock(mutex_);
        return list;
    }

    mutable Mutex mutex_;
    std::atomic<std::uint32_t> next_id_{1};
    std::vector<Event> events_;
    std::vector<Response> responses_;
    std::vector<Advert> adverts_;
    std::vector<std::pair<std::string, std::string>> heard_;
    std::vector<std::string> warnings_;
};

inline bus::Frame client_frame(proto::bus::MessageType type, std::string const& topic,
                               proto::bus::Bytes payload, std::uint32_t msg_id = 1) {
    bus::Frame frame;
    frame.type = type;
    frame.source = 3;
    frame.destination = 7;
    frame.msg_id = msg_id;
    frame.payload = std::move(payload);
    frame.return_route = 4;
    frame.topic_id = proto::bus::topic_hash(topic.c_str());
    frame.topic = topic;
    return frame;
}

inline bus::Frame event_frame(std::string const& topic, proto::bus::Bytes payload = {1}) {
    return client_frame(proto::bus::MessageType::EVENT, topic, std::move(payload));
}

inline bus::Frame request_frame(std::string const& topic, proto::bus::Bytes payload = {1},
                                std::uint32_t msg_id = 1) {
    return client_frame(proto::bus::MessageType::REQUEST, topic, std::move(payload), msg_id);
}

inline bus::Frame response_frame(std::uint32_t msg_id, proto::bus::Bytes payload) {
    return client_frame(proto::bus::MessageType::RESPONSE, "", std::move(payload), msg_id);
}

} // namespace tessaron::test
