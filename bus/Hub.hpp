#pragma once

#include "bus/BusWire.hpp"
#include "bus/FragmentAssembler.hpp"
#include "bus/HandlerTable.hpp"
#include "bus/IHub.hpp"
#include "bus/LastEventFilter.hpp"
#include "bus/LocalClientRegistry.hpp"
#include "bus/PendingRequestTracker.hpp"
#include "bus/RequestWorker.hpp"
#include "bus/RoutingTable.hpp"
#include "bus/TopicRegistry.hpp"
#include "bus/leases.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <set>
#include <vector>

namespace tessaron::bus {

/// A bus node on the wire.
///
///     unaddressed --set_interfaces--> probing <--claimed by another--> announced --> addressed
///     any --destructor--> gone
///
/// One file for each of its trades: Hub.cpp (life and identity), Hub_AddressClaim.cpp,
/// Hub_WireSend.cpp, Hub_Dispatch.cpp, Hub_PubSub.cpp, Hub_Requests.cpp, Hub_LocalClients.cpp,
/// Hub_Discovery.cpp. Its tables are small classes of their own.
///
/// Threads: the transport's reader parses frames; the wire's worker runs `dispatch` and event
/// handlers; the request worker runs request handlers; callers come on their own. No lock is held
/// while a handler runs.
///
/// Ownership: the buffers, the interfaces and the warning sink's captures are the caller's and
/// outlive the hub; the hub outlives its clients. Closing the transport comes after.
/// Thread safety: as `IHub`.
/// Errors: none; a conflict of addresses or names ends in a warning, a lost message in silence.
class Hub final : public IHub {
public:
    using Milliseconds = std::chrono::milliseconds;
    using Clock = std::chrono::steady_clock;
    using MessageType = proto::bus::MessageType;
    using Origin = proto::bus::Origin;
    using NodeIdentity = proto::bus::NodeIdentity;
    using WarningSink = std::function<void(std::string const&)>;
    using PatternHandler =
        std::function<void(std::string const& topic, Bytes const& payload, Origin const& origin)>;
    using RequestHandler = std::function<Bytes(std::string const& topic, Bytes const& payload,
                                               std::uint32_t requester)>;

    static constexpr std::uint32_t BROADCAST_ADDRESS = 0xFFFFFFFF;
    static constexpr std::uint8_t DEFAULT_TTL = 8;
    static constexpr Milliseconds DEFAULT_ADDRESS_PROBE_WINDOW{200};
    static constexpr Milliseconds DEFAULT_DISCOVERY_DEBOUNCE{5'000};
    static constexpr Milliseconds DEFAULT_SUBSCRIPTION_TTL{60'000};
    static constexpr Milliseconds DEFAULT_DISCOVERY_TIMEOUT{500};
    static constexpr std::chrono::seconds K_NETWORK_MAP_CACHE_TTL{10};
    static constexpr std::chrono::seconds K_VERSION_MISMATCH_WARNING_INTERVAL{30};
    static constexpr std::size_t K_MAX_DATA_FIELD_CHUNK_SIZE = 4014;
    static constexpr std::uint8_t PROTOCOL_VERSION = 2;
    static constexpr std::size_t MAX_PAYLOAD_SIZE = 4096;
    /// Room kept in a frame for all fields but the data.
    static constexpr std::size_t K_MAX_FRAME_OVERHEAD = 82;
    /// A larger message is refused.
    static constexpr std::size_t K_MAX_MESSAGE_SIZE = 0x100000;
    /// Smaller payloads are not worth compressing.
    static constexpr std::size_t K_MIN_COMPRESSED_SIZE = 1024;
    static constexpr unsigned K_ADDRESS_ATTEMPTS = 8;

    struct Settings {
        Milliseconds discovery_debounce = DEFAULT_DISCOVERY_DEBOUNCE;
        Milliseconds subscription_ttl = DEFAULT_SUBSCRIPTION_TTL;
        std::uint16_t channel = 0;
        std::uint16_t channel_max = 0;
        std::uint64_t hardware_id = 0; ///< Makes alternate addresses differ between machines.
        Milliseconds address_probe_window = DEFAULT_ADDRESS_PROBE_WINDOW;
        std::uint32_t domain = 0; ///< A second address of this node; a gateway's hubs have one.
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

    // --- Routes, for gateways.
    /// Frames for `low` to `high` go to the forwarder.
    void add_route(std::uint32_t low, std::uint32_t high, RouteForward forward, bool direct);
    /// Whether a route with a forwarder exists.
    bool has_local_route(std::uint32_t address) const;
    /// A frame from another hub of this process: delivered where it is for this hub, its domain or
    /// its clients, otherwise sent out here, to the same destination. Its ttl is already lowered. A
    /// frame without an origin gets one, so that the answer finds its way back. From any thread.
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
    struct Offers; ///< What this node tells of itself; see Hub_Discovery.cpp.

    // Hub.cpp
    void emit_warning(std::string const& text) const TESSARON_EXCLUDES(warning_mutex_);
    void refresh_debug_marker() TESSARON_EXCLUDES(state_mutex_, identity_mutex_);
    void commit_address(std::uint32_t address);

    // Hub_AddressClaim.cpp
    void resolve_address();
    void resolve_name_collision() TESSARON_EXCLUDES(identity_mutex_);
    bool probe(std::uint32_t candidate, Clock::time_point since);
    bool probe_local_client_candidate(std::uint32_t candidate);
    bool is_address_claimed_by_peer(std::uint32_t address, Clock::time_point since) const;
    std::uint32_t derive_alternate_address(unsigned attempt) const;

    // Hub_WireSend.cpp
    std::size_t send_whole_or_in_fragments(WireFrame header, Bytes const& wire_payload);
    std::size_t forward_frame(WireFrame const& frame);

    // Hub_Dispatch.cpp
    void dispatch(ReceivedFrame&& received);
    void dispatch_complete(WireFrame&& message, bool has_data);
    void process_own_domain_traffic(WireFrame const& message, bool has_data);
    void report_version_mismatch(std::uint8_t version);
    std::uint32_t route_key_for(Origin const& origin) const;
    void learn_routes(std::uint32_t source,
                      std::vector<proto::bus::DiscoveryRecord> const& records);

    // Hub_PubSub.cpp
    void advertise_if_new(std::string const& topic) TESSARON_EXCLUDES(state_mutex_);
    void retain(std::string const& topic, Bytes const& payload, std::uint32_t msg_id)
        TESSARON_EXCLUDES(state_mutex_);
    void handle_subscribe_request(std::uint32_t source, Bytes const& data);
    void handle_subscribe_response(std::uint32_t source, Bytes const& data);
    void handle_unsubscribe_request(std::uint32_t source, Bytes const& data);
    void dispatch_event_handlers(Origin const& origin, std::uint32_t msg_id, std::uint16_t topic_id,
                                 std::string const& name, Bytes const& payload)
        TESSARON_EXCLUDES(state_mutex_);

    // Hub_Requests.cpp
    void handle_request(WireFrame const& message);
    void run_request(RequestTask const& task);
    void send_reply(RequestTask const& task, Bytes const& reply);

    // Hub_LocalClients.cpp
    bool deliver_to_local_clients(WireFrame const& message, Bytes const& payload,
                                  std::uint32_t source, std::uint32_t return_route,
                                  std::optional<std::uint32_t> excluded, std::string const& topic);

    // Hub_Discovery.cpp
    void announce();
    Bytes discovery_response() const;
    void handle_discovery_request(std::uint32_t source) TESSARON_EXCLUDES(debounce_mutex_);
    void handle_discovery_response(std::uint32_t source, Bytes const& data);
    Offers offers_snapshot() const TESSARON_EXCLUDES(state_mutex_);

    // What is told to the system or other threads.
    Settings const settings_;
    std::uint32_t const preferred_address_;
    std::atomic<std::uint32_t> address_;
    std::atomic<bool> ready_{false};
    std::atomic<std::uint32_t> next_msg_{1};
    std::atomic<bool> skip_broadcast_discovery_{false};
    std::atomic<bool> compression_enabled_{false};
    std::atomic<std::uint64_t> version_mismatch_drops_{0};
    std::atomic<Clock::rep> last_version_warning_{
        Clock::time_point::min().time_since_epoch().count()};

    mutable Mutex warning_mutex_;
    WarningSink warning_sink_ TESSARON_GUARDED_BY(warning_mutex_);
    mutable Mutex identity_mutex_;
    NodeIdentity identity_ TESSARON_GUARDED_BY(identity_mutex_);
    std::string const debug_name_;

    // Tables with locks of their own.
    PendingRequestTracker pending_;
    FragmentAssembler fragments_;
    TopicRegistry topics_;
    DeviceRegistry devices_;
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
    HandlerTable<PatternHandler> event_handlers_ TESSARON_GUARDED_BY(state_mutex_);
    HandlerTable<RequestHandler> request_handlers_ TESSARON_GUARDED_BY(state_mutex_);
    std::unordered_map<std::string, std::uint32_t>
        last_retained_id_ TESSARON_GUARDED_BY(state_mutex_);
    LastEventFilter last_events_ TESSARON_GUARDED_BY(state_mutex_);

    Mutex debounce_mutex_;
    std::unordered_map<std::uint32_t, Clock::time_point>
        last_discovery_reply_ TESSARON_GUARDED_BY(debounce_mutex_);

    // Last: their threads use all of the above.
    RequestWorker request_worker_;
    BusWire wire_;
};

} // namespace tessaron::bus
