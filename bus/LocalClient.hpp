#pragma once

#include "bus/CallGate.hpp"
#include "bus/Envelope.hpp"
#include "bus/Frame.hpp"
#include "bus/HandlerTable.hpp"
#include "bus/LocalClientBindings.hpp"
#include "bus/PendingRequestTracker.hpp"
#include "bus/ReplayedHandler.hpp"
#include "bus/RequestWorker.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// A service's own bus node, hosted on its process's hub: to the rest of the bus it looks like a
/// node by itself, with its own address and identity.
///
/// Event handlers run on the hub's receiving thread, or on that of whoever publishes in this
/// process, and delay every delivery there, so they must not block; a `request_to` from one waits
/// for a reply that comes after the handler has returned, and times out. Request handlers run one
/// at a time on the client's own worker and may block. No lock is held while a handler runs, so it
/// may subscribe, publish and request.
///
/// Ownership: shared by the service that made it. The hub has a weak pointer to what the shared
/// ones own together (`weak_from_this`, not one made of a shared pointer), and outlives it. Letting
/// the last pointer go stops the worker and waits for the handlers that are running on other
/// threads; after it none runs, so they may use what outlives the pointer. It must not be let go in
/// a request handler, nor under a lock that a handler takes. A handler that uses the client has a
/// plain pointer to it: the shared one changes while it is let go.
/// Thread safety: safe from any thread.
/// Errors: none; handlers that throw cost a warning, requests that are lost end in a time-out.
class LocalClient : public std::enable_shared_from_this<LocalClient> {
public:
    using Bytes = proto::bus::Bytes;
    using Milliseconds = std::chrono::milliseconds;
    using TopicParams = LocalClientBindings::TopicParams;
    /// The source of an event that was retained before the subscription is 0.
    using EventHandler = ReplayedHandler::Handler;
    using Server = std::function<Bytes(Bytes const& request)>;
    using Getter = std::function<Bytes()>;
    /// By the address of whoever answered.
    using Replies = std::map<std::uint32_t, Bytes>;
    using IsLast = std::function<bool(Bytes const& reply)>;

    static constexpr std::uint32_t K_EVERYBODY = 0xFFFFFFFF;
    /// Messages that nobody has taken yet; beyond it the oldest are dropped.
    static constexpr std::size_t K_MAX_QUEUED_FRAMES = 256;
    /// Of their payloads together. The newest is kept, whatever its size.
    static constexpr std::size_t K_MAX_QUEUED_BYTES = std::size_t{16} * 1024 * 1024;

    static std::shared_ptr<LocalClient> make(std::uint32_t address,
                                             proto::bus::NodeIdentity const& identity,
                                             LocalClientBindings bindings);
    LocalClient(LocalClient const&) = delete;
    LocalClient& operator=(LocalClient const&) = delete;

    std::uint32_t address() const { return address_; }
    proto::bus::NodeIdentity const& identity() const { return identity_; }
    /// "client-<address>".
    std::string const& debug_name() const { return debug_name_; }

    // --- Answering. Of several servers of one topic, one answers.
    void serve(std::string const& topic, Server server, std::string const& description,
               TopicParams const& params = {}, bool flag = false)
        TESSARON_EXCLUDES(handlers_mutex_);
    /// A value that can be asked for: the request's bytes don't matter.
    void serve_getter(std::string const& topic, Getter get, std::string const& description);
    /// A value that can be set: the reply is `set`'s.
    void serve_setter(std::string const& topic, Server set, std::string const& description,
                      TopicParams const& params = {});
    /// Both, as the topics "<topic>.get" and "<topic>.set".
    void serve_property(std::string const& topic, Getter get, std::string const& get_description,
                        Server set, std::string const& set_description,
                        TopicParams const& set_params = {});
    /// The same with records; a request that `Request::parse` refuses costs a warning.
    template <typename Request, typename Reply>
    void serve_record(std::string const& topic, std::function<Reply(Request const&)> server,
                      std::string const& description) {
        serve(
            topic,
            [server = std::move(server)](Bytes const& request) {
                return server(Request::parse(request)).build();
            },
            description);
    }

    // --- Publishing.
    void advertise(std::string const& topic, std::string const& description);
    void advertise_with_kind(std::string const& topic, std::string const& description,
                             proto::bus::TopicKind kind, TopicParams const& params = {},
                             bool flag = false) TESSARON_EXCLUDES(handlers_mutex_);
    /// To everybody; returns the message id.
    std::uint32_t publish(std::string const& topic, Bytes const& payload)
        TESSARON_EXCLUDES(handlers_mutex_);
    std::uint32_t publish(std::string const& topic, Envelope const& envelope);
    template <typename Record>
    requires requires(Record const& record) { record.build(); }
    std::uint32_t publish(std::string const& topic, Record const& record) {
        return publish(topic, record.build());
    }
    /// An event to one address, retained nowhere.
    std::uint32_t send(std::uint32_t target, std::string const& topic, Bytes const& payload);

    // --- Hearing.
    /// A topic, or a pattern with "*". What this process's other nodes published last is handled
    /// before the return.
    void subscribe(std::string const& pattern, EventHandler handler,
                   std::string const& description = {}) TESSARON_EXCLUDES(handlers_mutex_);
    /// The payload as a record; one that `Record::parse` refuses costs a warning.
    template <typename Record>
    void subscribe(std::string const& pattern, std::function<void(Record const&)> handler,
                   std::string const& description = {}) {
        subscribe(
            pattern,
            [handler = std::move(handler)](std::string const&, Bytes const& payload,
                                           std::uint32_t) { handler(Record::parse(payload)); },
            description);
    }
    bool has_event_subscription(std::uint16_t topic_id, std::string const& topic) const
        TESSARON_EXCLUDES(handlers_mutex_);
    /// The oldest message that no handler took, waiting for one if there is none yet.
    std::optional<Frame> next_frame(Milliseconds timeout) TESSARON_EXCLUDES(queue_mutex_);

    // --- Asking.
    /// The first reply of one address, or nothing after the time.
    std::optional<Bytes> request_to(std::uint32_t target, std::string const& topic,
                                    Bytes const& payload, Milliseconds timeout);
    /// The same with records; a reply that `Reply::parse` refuses is none.
    template <typename Reply, typename Request>
    std::optional<Reply> call(std::uint32_t target, std::string const& topic,
                              Request const& request, Milliseconds timeout) {
        auto const reply = request_to(target, topic, request.build(), timeout);
        try {
            return reply ? std::optional<Reply>(Reply::parse(*reply)) : std::nullopt;
        } catch (std::exception const&) {
            return std::nullopt;
        }
    }
    /// All replies, of everybody who has the target's address or belongs to its domain. Takes the
    /// whole time, since nobody knows how many will answer, unless one comes that `is_last`.
    Replies call(std::uint32_t target, std::string const& topic, Bytes const& payload,
                 Milliseconds timeout, IsLast const& is_last = {});
    /// For a stop: whoever waits for replies returns at once with those that there are, and so does
    /// whoever asks from now on.
    void stop_waiting() { pending_.close(); }
    std::unordered_map<std::uint32_t, DiscoveredDevice> discovered_devices() const;

    // --- For the hub.
    void push(Frame frame) TESSARON_EXCLUDES(queue_mutex_);
    /// The topics that it serves, publishes or hears, for the list of hosted modules.
    std::vector<std::string> topics() const TESSARON_EXCLUDES(handlers_mutex_);

private:
    LocalClient(std::uint32_t address, proto::bus::NodeIdentity const& identity,
                LocalClientBindings bindings);

    /// Stops the worker, then waits for event handlers.
    void close();
    /// Whether the frame has found its taker, who may have emptied it.
    bool dispatch(Frame& frame);
    bool dispatch_event(Frame const& frame) TESSARON_EXCLUDES(handlers_mutex_);
    bool dispatch_request(Frame& frame) TESSARON_EXCLUDES(handlers_mutex_);
    void queue(Frame frame) TESSARON_EXCLUDES(queue_mutex_);
    void run_event(EventHandler const& handler, std::string const& topic, Bytes const& payload,
                   std::uint32_t source) const;
    void run_request(RequestTask const& task) const;
    /// A client does not hear what it published itself.
    ReplayedHandler::Retained retained_by_others(std::string const& pattern) const
        TESSARON_EXCLUDES(handlers_mutex_);
    /// Sends a request; returns its message id, and the waiter that is registered for it.
    std::pair<std::uint32_t, std::shared_ptr<Waiter>>
    start_request(std::uint32_t target, std::string const& topic, Bytes const& payload);
    void warn(std::string const& text) const;

    std::uint32_t const address_;
    proto::bus::NodeIdentity const identity_;
    LocalClientBindings const bindings_;
    std::string const debug_name_;

    Mutex queue_mutex_; ///< Guards the messages that nobody took.
    std::condition_variable queued_;
    std::deque<Frame> queue_ TESSARON_GUARDED_BY(queue_mutex_);
    std::size_t queued_bytes_ TESSARON_GUARDED_BY(queue_mutex_) = 0;

    mutable Mutex handlers_mutex_;
    HandlerTable<EventHandler> event_handlers_ TESSARON_GUARDED_BY(handlers_mutex_);
    HandlerTable<RequestTask::Handler> request_handlers_ TESSARON_GUARDED_BY(handlers_mutex_);
    /// What is heard under its own name, for frames that only have its id.
    std::unordered_map<std::uint16_t, std::string>
        heard_names_ TESSARON_GUARDED_BY(handlers_mutex_);
    std::unordered_set<std::string> topics_ TESSARON_GUARDED_BY(handlers_mutex_);
    std::unordered_set<std::string> published_ TESSARON_GUARDED_BY(handlers_mutex_);

    PendingRequestTracker pending_;
    CallGate pushes_;
    RequestWorker request_worker_; ///< Last: its thread uses all of the above.
};

} // namespace tessaron::bus
