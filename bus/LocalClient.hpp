#pragma once

#include "bus/Envelope.hpp"
#include "bus/Frame.hpp"
#include "bus/HandlerTable.hpp"
#include "bus/LocalClientBindings.hpp"
#include "bus/PendingRequestTracker.hpp"
#include "bus/RequestWorker.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// A service's own bus node, hosted on its process's hub: to the rest of the bus it looks like a
/// node by itself, with its own address and identity.
///
/// Event handlers run on the hub's receiving thread and delay every delivery of the process, so
/// they must not block; request handlers run one at a time on the client's own worker and may. No
/// lock is held while a handler runs, so it may subscribe, publish and request.
///
/// Ownership: shared by the service that made it; the hub only has a weak pointer, and outlives it.
/// The destructor waits for the handler that is running, so the last pointer must not be let go in
/// a request handler. Thread safety: safe from any thread. Errors: none; handlers that throw cost a
/// warning, requests that are lost end in a time-out.
class LocalClient {
public:
    using Bytes = proto::bus::Bytes;
    using TopicParams = LocalClientBindings::TopicParams;
    using EventHandler =
        std::function<void(std::string const& topic, Bytes const& payload, std::uint32_t source)>;
    using Server = std::function<Bytes(Bytes const& request)>;

    static constexpr std::uint32_t K_EVERYBODY = 0xFFFFFFFF;
    /// Messages that nobody has taken yet; beyond it the oldest are dropped.
    static constexpr std::size_t K_MAX_QUEUED_FRAMES = 256;

    LocalClient(std::uint32_t address, proto::bus::NodeIdentity const& identity,
                LocalClientBindings bindings);
    ~LocalClient();
    LocalClient(LocalClient const&) = delete;
    LocalClient& operator=(LocalClient const&) = delete;

    std::uint32_t address() const { return address_; }
    proto::bus::NodeIdentity const& identity() const { return identity_; }
    /// "client-<address>".
    std::string const& debug_name() const { return debug_name_; }

    // --- Answering.
    void serve(std::string const& topic, Server server, std::string const& description,
               TopicParams const& params = {}, bool flag = false)
        TESSARON_EXCLUDES(handlers_mutex_);
    /// A value that can be asked for: the request's bytes don't matter.
    void serve_getter(std::string const& topic, std::function<Bytes()> get,
                      std::string const& description);
    /// A value that can be set: the reply is `set`'s.
    void serve_setter(std::string const& topic, Server set, std::string const& description);
    /// Both: an empty request asks, any other sets and gets the value back.
    void serve_property(std::string const& topic, std::function<Bytes()> get,
                        std::function<void(Bytes const&)> set, std::string const& description);

    // --- Publishing.
    void advertise(std::string const& topic, std::string const& description);
    void advertise_with_kind(std::string const& topic, std::string const& description,
                             proto::bus::TopicKind kind, TopicParams const& params = {},
                             bool flag = false);
    /// To everybody; returns the message id.
    std::uint32_t publish(std::string const& topic, Bytes const& payload);
    std::uint32_t publish(std::string const& topic, Envelope const& envelope);
    template <typename Record>
    requires requires(Record const& record) { record.build(); }
    std::uint32_t publish(std::string const& topic, Record const& record) {
        return publish(topic, record.build());
    }
    /// An event to one address, retained nowhere.
    std::uint32_t send(std::uint32_t target, std::string const& topic, Bytes const& payload);

    // --- Hearing.
    /// A topic, or a pattern with "*".
    void subscribe(std::string const& pattern, EventHandler handler)
        TESSARON_EXCLUDES(handlers_mutex_);
    /// The payload as a record; one that `Record::parse` refuses costs a warning.
    template <typename Record>
    void subscribe(std::string const& pattern, std::function<void(Record const&)> handler) {
        subscribe(pattern, [handler = std::move(handler)](std::string const&, Bytes const& payload,
                                                          std::uint32_t) {
            handler(Record::parse(payload));
        });
    }
    bool has_event_subscription(std::uint16_t topic_id, std::string const& topic) const
        TESSARON_EXCLUDES(handlers_mutex_);
    /// The oldest message that no handler took, waiting for one if there is none yet.
    std::optional<Frame> next_frame(std::chrono::milliseconds timeout)
        TESSARON_EXCLUDES(queue_mutex_);

    // --- Asking.
    /// The first reply of one address, or nothing after the time.
    std::optional<Bytes> request_to(std::uint32_t target, std::string const& topic,
                                    Bytes const& payload, std::chrono::milliseconds timeout);
    /// The same with records.
    template <typename Reply, typename Request>
    std::optional<Reply> call(std::uint32_t target, std::string const& topic,
                              Request const& request, std::chrono::milliseconds timeout) {
        auto const reply = request_to(target, topic, request.build(), timeout);
        return reply ? std::optional<Reply>(Reply::parse(*reply)) : std::nullopt;
    }
    std::unordered_map<std::uint32_t, DiscoveredDevice> discovered_devices() const;

    // --- For the hub.
    void push(Frame frame) TESSARON_EXCLUDES(queue_mutex_);
    /// The topics that it serves, publishes or hears, for the list of hosted modules.
    std::vector<std::string> topics() const TESSARON_EXCLUDES(handlers_mutex_);

private:
    /// Whether the frame has found its taker.
    bool dispatch(Frame const& frame);
    bool dispatch_event(Frame const& frame) TESSARON_EXCLUDES(handlers_mutex_);
    bool dispatch_request(Frame const& frame) TESSARON_EXCLUDES(handlers_mutex_);
    void run_request(RequestTask const& task);

    std::uint32_t const address_;
    proto::bus::NodeIdentity const identity_;
    LocalClientBindings const bindings_;
    std::string const debug_name_;

    Mutex queue_mutex_; ///< Guards the messages that nobody took.
    std::condition_variable queued_;
    std::deque<Frame> queue_ TESSARON_GUARDED_BY(queue_mutex_);

    mutable Mutex handlers_mutex_;
    HandlerTable<EventHandler> event_handlers_ TESSARON_GUARDED_BY(handlers_mutex_);
    HandlerTable<RequestTask::Handler> request_handlers_ TESSARON_GUARDED_BY(handlers_mutex_);
    std::vector<std::string> topics_ TESSARON_GUARDED_BY(handlers_mutex_);

    PendingRequestTracker pending_;
    RequestWorker request_worker_; ///< Last: its thread uses all of the above.
};

} // namespace tessaron::bus
