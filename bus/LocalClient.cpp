#include "bus/LocalClient.hpp"

// How a client hears and answers: what the hub hands it, on the hub's receiving thread or on that
// of whoever sends in this process, and the request worker. What it says of itself and sends is in
// LocalClient_Send.cpp. Touches the queue, the tables of handlers and the requests under way.

namespace tessaron::bus {

using proto::bus::MessageType;

std::shared_ptr<LocalClient> LocalClient::make(std::uint32_t address,
                                               proto::bus::NodeIdentity const& identity,
                                               LocalClientBindings bindings) {
    std::shared_ptr<LocalClient> owned(new LocalClient(address, identity, std::move(bindings)));
    LocalClient* const client = owned.get();
    // The hub shares in `owned` while it delivers, and may be the last to let go of it: it may do
    // so on any thread, even the client's own worker, which by then has long been stopped.
    return {client, [owned = std::move(owned)](LocalClient*) mutable {
                owned->close();
                owned.reset();
            }};
}

LocalClient::LocalClient(std::uint32_t address, proto::bus::NodeIdentity const& identity,
                         LocalClientBindings bindings)
    : address_(address), identity_(identity), bindings_(std::move(bindings)),
      debug_name_("client-" + std::to_string(address)),
      request_worker_("bus-client-req", [this](RequestTask const& task) { run_request(task); }) {
}

void LocalClient::close() {
    request_worker_.stop();
    pushes_.close();
}

bool LocalClient::has_event_subscription(std::uint16_t topic_id, std::string const& topic) const {
    MutexLock lock(handlers_mutex_);
    return event_handlers_.matches(topic_id, topic);
}

void LocalClient::push(Frame frame) {
    CallGate::Pass const pass(pushes_);
    if (pass && !dispatch(frame)) {
        queue(std::move(frame));
    }
}

void LocalClient::queue(Frame frame) {
    {
        MutexLock lock(queue_mutex_);
        queued_bytes_ += frame.payload.size();
        queue_.push_back(std::move(frame));
        while (queue_.size() > K_MAX_QUEUED_FRAMES ||
               (queued_bytes_ > K_MAX_QUEUED_BYTES && queue_.size() > 1)) {
            queued_bytes_ -= queue_.front().payload.size();
            queue_.pop_front();
        }
    }
    queued_.notify_one();
}

std::optional<Frame> LocalClient::next_frame(Milliseconds timeout) {
    MutexLock lock(queue_mutex_);
    queued_.wait_for(lock.native(), timeout,
                     [this]() TESSARON_REQUIRES(queue_mutex_) { return !queue_.empty(); });
    if (queue_.empty()) {
        return std::nullopt;
    }
    std::optional<Frame> frame(std::move(queue_.front()));
    queue_.pop_front();
    queued_bytes_ -= frame->payload.size();
    return frame;
}

bool LocalClient::dispatch(Frame& frame) {
    switch (frame.type) {
    case MessageType::RESPONSE:
        return pending_.deliver(frame.msg_id, frame.source, frame.payload);
    case MessageType::EVENT:
        return dispatch_event(frame);
    case MessageType::REQUEST:
        return dispatch_request(frame);
    default:
        return false;
    }
}

bool LocalClient::dispatch_event(Frame const& frame) {
    std::vector<EventHandler> handlers;
    std::string name = frame.topic;
    {
        MutexLock lock(handlers_mutex_);
        handlers = event_handlers_.find(frame.topic_id, frame.topic);
        if (auto const heard = heard_names_.find(frame.topic_id);
            name.empty() && heard != heard_names_.end()) {
            name = heard->second;
        }
    }
    for (EventHandler const& handler : handlers) {
        handler(name, frame.payload, frame.source);
    }
    return !handlers.empty();
}

bool LocalClient::dispatch_request(Frame& frame) {
    RequestTask task;
    {
        MutexLock lock(handlers_mutex_);
        task.handlers = request_handlers_.find(frame.topic_id, frame.topic);
    }
    if (task.handlers.empty()) {
        return false;
    }
    task.handlers.resize(1);
    task.topic = std::move(frame.topic);
    task.payload = std::move(frame.payload);
    task.requester = frame.return_route;
    task.msg_id = frame.msg_id;
    request_worker_.push(std::move(task));
    return true;
}

void LocalClient::run_event(EventHandler const& handler, std::string const& topic,
                            Bytes const& payload, std::uint32_t source) const {
    std::string const subject = "[bus] EVENT handler for '" + topic + "' threw ";
    try {
        handler(topic, payload, source);
    } catch (std::exception const& error) {
        warn(subject + "on this payload (malformed/unexpected?): " + error.what());
    } catch (...) {
        warn(subject + "a non-std::exception on this payload");
    }
}

void LocalClient::run_request(RequestTask const& task) const {
    std::string const subject = "[bus] REQUEST handler for '" + task.topic + "' threw ";
    std::string const outcome = " - dropping, requester will see a timeout";
    Bytes reply;
    try {
        reply = task.handlers.front()(task.topic, task.payload, task.requester);
    } catch (std::exception const& error) {
        warn(subject + "on this payload (malformed/unexpected?): " + error.what() + outcome);
        return;
    } catch (...) {
        warn(subject + "a non-std::exception on this payload" + outcome);
        return;
    }
    if (bindings_.send_response) {
        bindings_.send_response(task.requester, task.msg_id, reply);
    }
}

} // namespace tessaron::bus
