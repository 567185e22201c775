#include "bus/LocalClient.hpp"

#include <algorithm>

// What a client says of itself and sends, on its callers' threads. Touches the tables of handlers
// and the requests under way; all else is the hub's, behind the bindings.

namespace tessaron::bus {
namespace {

/// A client may be made without some of the bindings: it is then silent there.
template <typename Result, typename... Parameters, typename... Arguments>
Result call_if_set(std::function<Result(Parameters...)> const& binding, Arguments&&... arguments) {
    return binding ? binding(std::forward<Arguments>(arguments)...) : Result();
}

} // namespace

void LocalClient::serve(std::string const& topic, Server server, std::string const& description,
                        TopicParams const& params, bool flag) {
    {
        MutexLock lock(handlers_mutex_);
        request_handlers_.add(
            topic, [server = std::move(server)](std::string const&, Bytes const& request,
                                                std::uint32_t) { return server(request); });
    }
    advertise_with_kind(topic, description, proto::bus::TopicKind::REQUEST, params, flag);
}

void LocalClient::serve_getter(std::string const& topic, Getter get,
                               std::string const& description) {
    serve(
        topic, [get = std::move(get)](Bytes const&) { return get(); }, description);
}

void LocalClient::serve_setter(std::string const& topic, Server set, std::string const& description,
                               TopicParams const& params) {
    serve(topic, std::move(set), description, params);
}

void LocalClient::serve_property(std::string const& topic, Getter get,
                                 std::string const& get_description, Server set,
                                 std::string const& set_description,
                                 TopicParams const& set_params) {
    serve_getter(topic + ".get", std::move(get), get_description);
    serve_setter(topic + ".set", std::move(set), set_description, set_params);
}

void LocalClient::advertise(std::string const& topic, std::string const& description) {
    advertise_with_kind(topic, description, proto::bus::TopicKind::EVENT);
}

void LocalClient::advertise_with_kind(std::string const& topic, std::string const& description,
                                      proto::bus::TopicKind kind, TopicParams const& params,
                                      bool flag) {
    {
        MutexLock lock(handlers_mutex_);
        topics_.insert(topic);
    }
    call_if_set(bindings_.advertise, topic, description, kind, params, flag);
}

std::uint32_t LocalClient::publish(std::string const& topic, Bytes const& payload) {
    {
        MutexLock lock(handlers_mutex_);
        if (published_.insert(topic).second) {
            topics_.insert(topic);
        }
    }
    return call_if_set(bindings_.publish_to, K_EVERYBODY, topic, payload);
}

std::uint32_t LocalClient::publish(std::string const& topic, Envelope const& envelope) {
    return publish(topic, encode_envelope(envelope));
}

std::uint32_t LocalClient::send(std::uint32_t target, std::string const& topic,
                                Bytes const& payload) {
    return call_if_set(bindings_.send_event, target, topic, payload);
}

void LocalClient::subscribe(std::string const& pattern, EventHandler handler,
                            std::string const& description) {
    auto const replayed = std::make_shared<ReplayedHandler>(
        [this, handler = std::move(handler)](std::string const& topic, Bytes const& payload,
                                             std::uint32_t source) {
            run_event(handler, topic, payload, source);
        });
    {
        MutexLock lock(handlers_mutex_);
        event_handlers_.add(pattern, [replayed](std::string const& topic, Bytes const& payload,
                                                std::uint32_t source) {
            replayed->handle(topic, payload, source);
        });
        topics_.insert(pattern);
        if (!is_glob_pattern(pattern)) {
            heard_names_.emplace(proto::bus::topic_hash(pattern.c_str()), pattern);
        }
    }
    call_if_set(bindings_.refresh_debug_marker, pattern, description);
    replayed->replay(retained_by_others(pattern));
}

ReplayedHandler::Retained LocalClient::retained_by_others(std::string const& pattern) const {
    auto retained = call_if_set(bindings_.matching_retained_events, pattern);
    MutexLock lock(handlers_mutex_);
    std::erase_if(retained, [this](auto const& event) TESSARON_REQUIRES(handlers_mutex_) {
        return published_.contains(event.first);
    });
    return retained;
}

std::optional<LocalClient::Bytes> LocalClient::request_to(std::uint32_t target,
                                                          std::string const& topic,
                                                          Bytes const& payload,
                                                          Milliseconds timeout) {
    auto const [msg_id, waiter] = start_request(target, topic, payload);
    auto reply = waiter->wait_for_first(timeout);
    pending_.unregister(msg_id);
    return reply ? std::optional<Bytes>(std::move(reply->payload)) : std::nullopt;
}

LocalClient::Replies LocalClient::call(std::uint32_t target, std::string const& topic,
                                       Bytes const& payload, Milliseconds timeout,
                                       IsLast const& is_last) {
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    auto const [msg_id, waiter] = start_request(target, topic, payload);
    Replies replies;
    for (bool has_ended = false; !has_ended;) {
        std::size_t const known = replies.size();
        for (auto& [source, reply] : waiter->collect_more_than(known, deadline)) {
            has_ended = has_ended || (is_last && is_last(reply));
            replies[source] = std::move(reply);
        }
        has_ended = has_ended || replies.size() == known;
    }
    pending_.unregister(msg_id);
    return replies;
}

std::pair<std::uint32_t, std::shared_ptr<Waiter>>
LocalClient::start_request(std::uint32_t target, std::string const& topic, Bytes const& payload) {
    std::uint32_t const msg_id = call_if_set(bindings_.next_msg_id);
    auto waiter = pending_.register_waiter(msg_id);
    call_if_set(bindings_.send_request, target, msg_id, proto::bus::topic_hash(topic.c_str()),
                payload);
    return {msg_id, std::move(waiter)};
}

std::unordered_map<std::uint32_t, DiscoveredDevice> LocalClient::discovered_devices() const {
    return call_if_set(bindings_.discovered_devices);
}

std::vector<std::string> LocalClient::topics() const {
    MutexLock lock(handlers_mutex_);
    std::vector<std::string> topics(topics_.begin(), topics_.end());
    std::sort(topics.begin(), topics.end());
    return topics;
}

void LocalClient::warn(std::string const& text) const {
    call_if_set(bindings_.emit_warning, text);
}

} // namespace tessaron::bus
