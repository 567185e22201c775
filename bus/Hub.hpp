#pragma once

#include "bus/BusTraceRingBuffer.hpp"
#include "bus/BusWire.hpp"
#include "bus/FragmentAssembler.hpp"
#include "bus/HandlerTable.hpp"
#include "bus/HubSettings.hpp"
#include "bus/IHub.hpp"
#include "bus/LastEventFilter.hpp"
#include "bus/LocalClientRegistry.hpp"
#include "bus/NetworkMapCache.hpp"
#include "bus/NetworkSource.hpp"
#include "bus/PendingRequestTracker.hpp"
#include "bus/PresenceWatch.hpp"
#include "bus/RequestWorker.hpp"
#include "bus/RoutingTable.hpp"
#include "bus/TopicRegistry.hpp"
#include "bus/device_report.hpp"
#include "bus/leases.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// A bus node on the wire.
///
///     unaddressed --set_interfaces--> probing <--claimed by another--> announced --> addressed
///     any --destructor--> gone
///
/// One file for each of its trades: Hub.cpp (life and identity), Hub_AddressClaim.cpp (its own
/// address and name, and its clients'), Hub_WireSend.cpp, Hub_Dispatch.cpp (receiving, forwarding,
/// routes), Hub_PubSub.cpp, Hub_Requests.cpp, Hub_LocalClients.cpp, Hub_Discovery.cpp (with the
/// reports), Hub_NetworkMap.cpp. Its tables are small classes of their own.
///
/// Threads: the transport's reader parses frames; the wire's worker runs `dispatch` and event
/// handlers; the request worker runs request handlers, on its thread or on a reader that has
/// nothing else to do; callers come on their own. No lock is held while a handler runs.
///
/// Ownership: the buffers, the interfaces and the warning sink's captures are the caller's and
/// outlive the hub; the hub outlives its clients. Closing the transport comes after.
/// Thread safety: as `IHub`.
/// Errors: none; a conflict of addresses or names ends in a warning, a lost message in silence.
class Hub final : public IHub, public HubConstants {
public:
    using Clock = std::chrono::steady_clock;
    using MessageType = proto::bus::MessageType;
    using Origin = proto::bus::Origin;
    using NodeIdentity = proto::bus::NodeIdentity;
    using WarningSink = std::function<void(std::string const&)>;
    using PatternHandler =
        std::function<void(std::string const& topic, Bytes const& payload, Origin const& origin)>;
    using RequestHandler = std::function<Bytes(std::string const& topic, Bytes const& payload,
                                               std::uint32_t requester)>;

    using Settings = HubSettings;
    using BusTraceSnapshot = BusTraceSnapshotOf<K_TRACE_SIZE>;

    /// What `resolve_local_client_address` takes.
    struct AddressWish {
        std::uint32_t preferred = 0;
        std::uint64_t hardware_id = 0;
        std::string label;
    };

    /// `rx` and `tx` are this node's alone, at least `MAX_PAYLOAD_SIZE` bytes each. Starts the
    /// threads; the node is heard of after `set_interfaces`.
    Hub(BusWire::Buffer rx, BusWire::Buffer tx, std::uint32_t address, NodeIdentity const& identity,
        Settings const& settings);
    Hub(BusWire::Buffer rx, BusWire::Buffer tx, std::uint32_t address, NodeIdentity const& identity)
        : Hub(rx, tx, address, identity, Settings()) {}
    ~Hub() override;
    Hub(Hub const&) = delete;
    Hub& operator=(Hub const&) = delete;

    // --- Identity and life.
    void set_interfaces(proto::interface::IInterface& rx,
                        proto::interface::IInterface& tx) override;
    /// Before `set_interfaces`, so that nothing that the address claim has to tell is lost.
    void set_warning_sink(WarningSink sink) TESSARON_EXCLUDES(warning_mutex_);
    void set_skip_broadcast_discovery_response(bool skip) { skip_broadcast_discovery_ = skip; }
    void set_compression_enabled(bool enabled) { compression_enabled_ = enabled; }
    std::uint32_t address() const { return address_; }
    std::uint32_t domain_hash() const { return settings_.domain; }
    /// An address is committed; false again while a conflict over it is being settled.
    bool is_ready() const { return ready_; }
    NodeIdentity identity_snapshot() const TESSARON_EXCLUDES(identity_mutex_);
    /// Frames of another protocol version that were dropped.
    std::uint64_t version_mismatch_drops() const { return version_mismatch_drops_; }

    // --- Publish and subscribe.
    void publish(std::string const& topic, Envelope const& envelope) override;
    void publish_event(std::string const& topic, Bytes const& payload);
    void advertise(std::string const& topic, std::string const& description,
                   proto::bus::TopicKind kind,
                   std::vector<proto::bus::TopicParam> const& params = {}, bool flag = false)
        TESSARON_EXCLUDES(state_mutex_);
    void subscribe(std::string const& topic, EventHandler handler,
                   std::string description) override;
    void subscribe_pattern(std::string const& pattern, PatternHandler handler,
                           std::string const& description) TESSARON_EXCLUDES(state_mutex_);
    std::vector<std::pair<std::string, Bytes>>
    matching_retained_events(std::string const& pattern) const;
    void add_role(std::string const& role) TESSARON_EXCLUDES(state_mutex_);

    // --- Requests.
    void serve(std::string const& topic, Server server, std::string description) override;
    void on_request(std::string const& topic, RequestHandler handler,
                    std::string const& description) TESSARON_EXCLUDES(state_mutex_);
    std::optional<Bytes> request(std::string const& topic, Bytes const& payload,
                                 Milliseconds timeout) override;
    std::optional<RequestReply> request_impl(std::string const& topic, Bytes const& payload,
                                             Milliseconds timeout);
    /// Asks one address, or everybody, and waits for all answers to the end of the time.
    std::vector<RequestReply> request_to_and_collect(std::uint32_t destination,
                                                     std::string const& topic, Bytes const& payload,
                                                     Milliseconds timeout);

    // --- Clients of this process.
    std::shared_ptr<LocalClient> connect(std::uint32_t address,
                                         NodeIdentity const& identity) override;
    LocalClientBindings make_client_bindings(std::uint32_t address) override;
    void register_local_client(std::uint32_t address, std::weak_ptr<LocalClient> client) override;
    std::uint32_t resolve_local_client_address(std::uint32_t preferred, std::uint64_t hardware_id,
                                               std::string const& label) override;
    /// Several at once, all different, in the time that one takes.
    std::vector<std::uint32_t>
    resolve_local_client_addresses(std::vector<AddressWish> const& wishes);
    std::uint32_t pick_local_client_address(std::uint64_t hardware_id,
                                            std::string const& label) override;
    std::shared_ptr<LocalClient> connect_resolved(std::uint32_t preferred,
                                                  NodeIdentity const& identity,
                                                  std::uint64_t hardware_id) override;

    // --- Discovery.
    void discover() override;
    void discover(std::uint32_t address);
    std::unordered_map<std::uint32_t, DiscoveredDevice> discovered_devices() const override;
    void validate_subscriptions() const override;
    std::string build_report() const override;
    void print_table_report(std::ostream& out) const override;

    // --- The network as seen through gateways.
    /// Asks everybody on this bus for what they know of it, and the gateways for what lies behind
    /// them, through at most `max_depth` hubs one after the other. Takes the whole time, since
    /// nobody knows how many will answer, and returns what came until then: a tree of which this
    /// bus is the root. Not from an event handler.
    proto::bus::NetworkDomain discover_network(std::uint8_t max_depth, Milliseconds timeout);
    /// What this node alone knows of its bus, and what the gateways say; returns as soon as they
    /// have. `visited` holds the numbers of hubs that are covered already. A question that came
    /// across from this gateway's far side is not taken there again, and one that has been here
    /// before ends in an empty domain.
    proto::bus::NetworkDomain discover_network_impl(std::uint8_t max_depth,
                                                    std::vector<std::uint32_t> visited,
                                                    Milliseconds timeout, bool came_across);
    /// Asked by `discover_network_impl`, on its thread.
    void add_far_side(NetworkSource source) TESSARON_EXCLUDES(far_sides_mutex_);

    // --- The last messages that this node sent or received, each of them once and whole.
    BusTraceSnapshot bus_trace_snapshot() const noexcept { return trace_.snapshot(); }
    /// `K_TRACE_SIZE` entries. Async-signal-safe, as is the write index.
    BusTraceEntry const* bus_trace_raw_entries() const noexcept { return trace_.raw_entries(); }
    std::uint64_t bus_trace_raw_write_index() const noexcept { return trace_.raw_write_index(); }
    /// `direction` is one of those of `BusTraceEntry`.
    void record_bus_trace(char direction, MessageType type, std::uint32_t source,
                          std::uint32_t destination, std::uint32_t msg_id, Bytes const& payload,
                          std::string_view topic) noexcept;

    // --- Routes, for gateways.
    /// Frames for `low` to `high` go to the forwarder.
    void add_route(std::uint32_t low, std::uint32_t high, RouteForward const& forward, bool direct);
    /// Whether a route with a forwarder exists.
    bool has_local_route(std::uint32_t address) const;
    /// A frame from another hub of this process: delivered where it is for this hub, its domain or
    /// its clients, otherwise sent out here, to the same destination. Its ttl is already lowered. A
    /// frame without an origin gets one, so that the answer finds its way back. From any thread,
    /// on which event handlers may then run.
    void inject_frame(WireFrame frame);

    // --- Sending, for what is built on the hub. All return the bytes sent, 0 on refusal.
    /// `local_source`: the client that sends, 0 for the hub itself. `topic_name` may be empty.
    std::size_t send_envelope_with_origin(WireFrame const& header, Bytes const& payload,
                                          std::uint32_t local_source,
                                          std::string const& topic_name);
    std::size_t send_envelope_with_id(MessageType type, std::uint32_t dest, std::uint32_t msg_id,
                                      std::uint16_t frag_index, Bytes const& payload,
                                      std::uint32_t local_source, std::uint16_t topic_id,
                                      std::string const& topic_name);
    std::size_t send_envelope(MessageType type, std::uint32_t dest, Bytes const& payload,
                              std::uint16_t topic_id = 0);
    std::uint32_t next_msg_id() { return next_msg_++; }

private:
    using SharedPatternHandler = std::shared_ptr<PatternHandler const>;

    struct NetworkWalk;
    struct Claimant; ///< Who an address is claimed for; see Hub_AddressClaim.cpp.

    // Hub.cpp
    void emit_warning(std::string const& text) const TESSARON_EXCLUDES(warning_mutex_);
    void refresh_debug_marker() TESSARON_EXCLUDES(state_mutex_, identity_mutex_);

    // Hub_AddressClaim.cpp
    void resolve_address();
    void resolve_name_collision() TESSARON_EXCLUDES(identity_mutex_);
    /// Whether somebody who has the address answers within the probe window.
    bool probe(std::uint32_t candidate, Clock::time_point since);
    bool is_own_address(std::uint32_t candidate) const;
    /// Tells everybody; drops those that this process has.
    void want_local_client_candidates(std::set<std::uint32_t>& candidates);
    /// Drops those that somebody has.
    void probe_local_client_candidates(std::set<std::uint32_t>& candidates);
    std::shared_ptr<LocalClient> connect_and_announce(std::uint32_t address,
                                                      NodeIdentity const& identity);
    static std::uint32_t candidate(Claimant const& claimant, std::uint32_t preferred,
                                   unsigned attempt);
    bool is_address_claimed_by_peer(std::uint32_t address, Clock::time_point since) const;

    // Hub_WireSend.cpp
    std::size_t send_on_wire(WireFrame const& header, Bytes const& payload);
    std::size_t send_whole_or_in_fragments(WireFrame& header, Bytes const& payload);
    std::size_t forward_frame(WireFrame const& frame);

    // Hub_Dispatch.cpp
    void dispatch(ReceivedFrame&& received);
    void dispatch_for_this_node(WireFrame&& frame, bool has_data);
    void dispatch_complete(WireFrame&& message, bool has_data);
    void process_own_domain_traffic(WireFrame&& message, bool has_data, std::string const& topic);
    void report_version_mismatch(std::uint8_t version);
    bool is_for_this_node(std::uint32_t dest) const;
    bool is_own_or_twins(WireFrame const& frame) const;
    bool is_silenced(WireFrame const& request) const;
    std::uint32_t route_key_for(Origin const& origin) const;
    void learn_routes(std::vector<proto::bus::DiscoveryRecord> const& records);

    // Hub_PubSub.cpp
    void advertise_if_new(std::string const& topic) TESSARON_EXCLUDES(state_mutex_);
    void note_subscription(std::string const& pattern, std::string const& description)
        TESSARON_EXCLUDES(state_mutex_);
    void retain(std::string const& topic, Bytes const& payload, std::uint32_t msg_id)
        TESSARON_EXCLUDES(state_mutex_);
    void handle_subscribe_request(std::uint32_t source, Bytes const& data);
    void handle_subscribe_response(std::uint32_t source, Bytes const& data);
    void handle_unsubscribe_request(std::uint32_t source, Bytes const& data);
    void dispatch_event_handlers(Origin const& origin, std::uint32_t msg_id, std::uint16_t topic_id,
                                 std::string const& name, Bytes const& payload)
        TESSARON_EXCLUDES(state_mutex_);
    void run_event_handler(PatternHandler const& handler, std::string const& name,
                           Bytes const& payload, Origin const& origin) const;

    // Hub_Requests.cpp
    void handle_request(WireFrame&& message, std::string const& topic)
        TESSARON_EXCLUDES(state_mutex_);
    void run_request(RequestTask const& task);
    void send_reply(RequestTask const& task, Bytes&& reply);

    // Hub_LocalClients.cpp
    /// An event of a client; returns its message id. Retained where `topic_name` is not empty and
    /// it goes to everybody.
    std::uint32_t send_client_event(std::uint32_t client, std::uint32_t target,
                                    std::uint16_t topic_id, std::string const& topic_name,
                                    Bytes const& payload);
    /// Whether a client took the message. `excluded`: whoever sent it.
    bool deliver_to_local_clients(WireFrame const& message, Bytes const& payload,
                                  std::uint32_t source, std::uint32_t return_route,
                                  std::optional<std::uint32_t> excluded, std::string const& topic);

    // Hub_NetworkMap.cpp
    void serve_network_map();
    proto::bus::NetworkDomain answer_network_map(proto::bus::DiscoverNetworkRequest question,
                                                 std::uint32_t requester);
    /// Without those who are gone; asks those who may be.
    DeviceMap present_devices();
    proto::bus::NetworkDomain own_network_domain(DeviceMap const& devices) const;
    /// What others say, in the place of this bus. Takes the walk one hop further.
    proto::bus::NetworkDomain ask_beyond(NetworkWalk& walk, DeviceMap const& devices,
                                         bool& is_complete);
    std::vector<proto::bus::NetworkDomain> far_sides(NetworkWalk const& walk) const
        TESSARON_EXCLUDES(far_sides_mutex_);

    // Hub_Discovery.cpp
    void announce() { send_discovery_response(BROADCAST_ADDRESS); }
    void send_discovery_response(std::uint32_t dest);
    std::vector<proto::bus::DiscoveryRecord> build_discovery_records() const;
    /// Tells this node's announcements from those of a twin.
    std::string own_domain_name() const;
    std::vector<proto::bus::HostedModuleInfo> hosted_modules_for_wire() const;
    /// This node as others see it.
    DiscoveredDevice own_record() const TESSARON_EXCLUDES(state_mutex_, identity_mutex_);
    void handle_discovery_request(std::uint32_t source) TESSARON_EXCLUDES(debounce_mutex_);
    void handle_discovery_response(std::uint32_t source, Bytes const& data);
    /// Tells for the patterns of subscriptions whether anybody publishes what they are for.
    HasPublisher known_publishers(DeviceMap const& devices) const TESSARON_EXCLUDES(state_mutex_);

    // What is told to the system or other threads.
    Settings const settings_;
    std::uint32_t const preferred_address_;
    /// Tells this node from one that is its twin in everything else.
    std::uint64_t const chance_;
    std::atomic<std::uint32_t> address_;
    std::atomic<bool> ready_{false};
    std::atomic<std::uint32_t> next_msg_{1};
    std::atomic<bool> skip_broadcast_discovery_{false};
    std::atomic<bool> compression_enabled_{false};
    std::atomic<std::uint64_t> version_mismatch_drops_{0};
    static constexpr Clock::rep K_NEVER_WARNED =
        Clock::time_point::min().time_since_epoch().count();
    std::atomic<Clock::rep> last_version_warning_{K_NEVER_WARNED};

    mutable Mutex warning_mutex_;
    WarningSink warning_sink_ TESSARON_GUARDED_BY(warning_mutex_);
    mutable Mutex identity_mutex_;
    NodeIdentity identity_ TESSARON_GUARDED_BY(identity_mutex_);
    std::string const debug_name_;

    // Tables with locks of their own.
    PendingRequestTracker pending_;
    BusTraceRingBuffer<K_TRACE_SIZE> trace_;
    FragmentAssembler fragments_;
    TopicRegistry topics_;
    DeviceRegistry devices_;
    PresenceWatch presence_;
    LocalClientRegistry local_clients_;
    RoutingTable routes_;

    /// Guards what this node offers and wants, and by whom that is known. `topics_` may be called
    /// under it, no other table.
    mutable Mutex state_mutex_;
    std::map<std::string, proto::bus::TopicDescription>
        publications_ TESSARON_GUARDED_BY(state_mutex_);
    std::map<std::string, std::string> served_ TESSARON_GUARDED_BY(state_mutex_);
    std::map<std::string, std::string> subscribed_ TESSARON_GUARDED_BY(state_mutex_);
    std::set<std::string> roles_ TESSARON_GUARDED_BY(state_mutex_);
    LeaseTable publisher_leases_ TESSARON_GUARDED_BY(state_mutex_);
    LeaseTable subscriber_leases_ TESSARON_GUARDED_BY(state_mutex_);
    HandlerTable<SharedPatternHandler> event_handlers_ TESSARON_GUARDED_BY(state_mutex_);
    HandlerTable<RequestHandler> request_handlers_ TESSARON_GUARDED_BY(state_mutex_);
    std::unordered_map<std::string, std::uint32_t>
        last_retained_id_ TESSARON_GUARDED_BY(state_mutex_);
    LastEventFilter last_events_ TESSARON_GUARDED_BY(state_mutex_);

    NetworkMapCache network_cache_;
    mutable Mutex far_sides_mutex_;
    std::vector<NetworkSource> far_sides_ TESSARON_GUARDED_BY(far_sides_mutex_);

    Mutex debounce_mutex_;
    std::unordered_map<std::uint32_t, Clock::time_point>
        last_discovery_reply_ TESSARON_GUARDED_BY(debounce_mutex_);

    // Last: their threads use all of the above.
    RequestWorker request_worker_;
    BusWire wire_;
};

/// A number that no address has, and hardly any other hub, of what a hub calls its own domain in
/// its discovery responses.
std::uint32_t network_number(std::string const& domain_name);

} // namespace tessaron::bus
