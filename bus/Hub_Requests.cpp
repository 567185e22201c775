#include "bus/Hub.hpp"

// Requests: asking runs on the caller's thread, answering on the request worker. Touches the
// requests under way and what this node serves.

namespace tessaron::bus {

using proto::bus::topic_hash;

void Hub::serve(std::string const& topic, Server server, std::string description) {
    advertise(topic, description, proto::bus::TopicKind::REQUEST);
    on_request(
        topic,
        [server = std::move(server)](std::string const&, Bytes const& payload, std::uint32_t) {
            return server(payload);
        },
        description);
}

void Hub::on_request(std::string const& topic, RequestHandler handler,
                     std::string const& description) {
    topics_.register_name(topic_hash(topic.c_str()), topic);
    {
        MutexLock lock(state_mutex_);
        request_handlers_.add(topic, std::move(handler));
        served_[topic] = description;
    }
    refresh_debug_marker();
}

std::optional<Hub::Bytes> Hub::request(std::string const& topic, Bytes const& payload,
                                       Milliseconds timeout) {
    auto reply = request_impl(topic, payload, timeout);
    return reply ? std::optional(std::move(reply->payload)) : std::nullopt;
}

std::optional<RequestReply> Hub::request_impl(std::string const& topic, Bytes const& payload,
                                              Milliseconds timeout) {
    std::uint32_t const msg_id = next_msg_id();
    auto const waiter = pending_.register_waiter(msg_id);
    send_envelope_with_id(MessageType::REQUEST, BROADCAST_ADDRESS, msg_id, 0, payload, 0,
                          topic_hash(topic.c_str()), topic);
    auto reply = waiter->wait_for_first(timeout);
    pending_.unregister(msg_id);
    return reply;
}

std::vector<RequestReply> Hub::request_to_and_collect(std::uint32_t destination,
                                                      std::string const& topic,
                                                      Bytes const& payload, Milliseconds timeout) {
    std::uint32_t const msg_id = next_msg_id();
    auto const waiter = pending_.register_waiter(msg_id);
    send_envelope_with_id(MessageType::REQUEST, destination, msg_id, 0, payload, 0,
                          topic_hash(topic.c_str()), topic);
    auto replies = waiter->collect(timeout);
    pending_.unregister(msg_id);
    return replies;
}

void Hub::handle_request(WireFrame&& message, std::string const& topic) {
    if (!ready_) {
        return; // The answer would come from the address that is wanted, which somebody may have.
    }
    RequestTask task;
    {
        MutexLock lock(state_mutex_);
        task.handlers = request_handlers_.find(message.topic_id, topic);
    }
    if (task.handlers.empty()) {
        return;
    }
    task.topic = topic;
    task.payload = std::move(message.data);
    task.requester = message.origin ? route_key_for(*message.origin) : message.source;
    task.msg_id = message.msg_id;
    request_worker_.push_quietly(std::move(task));
}

void Hub::run_request(RequestTask const& task) {
    std::string const subject = "[bus] REQUEST handler for '" + task.topic + "' threw ";
    std::string const outcome = " - dropping, requester will see a timeout";
    for (auto const& handler : task.handlers) {
        try {
            send_reply(task, handler(task.topic, task.payload, task.requester));
        } catch (std::exception const& error) {
            emit_warning(subject + "on this payload (malformed/unexpected?): " + error.what() +
                         outcome);
        } catch (...) {
            emit_warning(subject + "a non-std::exception on this payload" + outcome);
        }
    }
}

void Hub::send_reply(RequestTask const& task, Bytes&& reply) {
    if (!has_local_route(task.requester)) {
        send_envelope_with_id(MessageType::RESPONSE, task.requester, task.msg_id, 0, reply,
                              address_, 0, "");
        return;
    }
    record_bus_trace(BusTraceEntry::K_SENT, MessageType::RESPONSE, address_, task.requester,
                     task.msg_id, reply, "");
    WireFrame response;
    response.type = MessageType::RESPONSE;
    response.source = address_;
    response.dest = task.requester;
    response.msg_id = task.msg_id;
    response.data = std::move(reply);
    forward_frame(response);
}

} // namespace tessaron::bus
