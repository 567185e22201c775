#pragma once

#include "bus/Hub.hpp"
#include "bus/bridge.hpp"
#include "libraries/interfaces/tcp/TcpServerInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace tessaron {

/// A name that fits an identity's field and keeps the whole suffix, at the cost of the name's end.
std::string with_suffix_guaranteed(std::string_view name, std::string_view suffix);

/// Lets tools that multicast does not reach join the bus over one TCP connection: two hubs, one on
/// the bus like any other node, one on a TCP listener, and the routes between them.
///
/// Frames that are addressed to a node on the other side cross; broadcasts stay on theirs. A tool
/// is reached from the bus once it has announced itself or has sent something across.
///
/// Ownership: listener, hubs and their buffers; the multicast interface and what the warning sink
/// captures outlive the gateway.
/// Thread safety: immutable after construction. Its own thread looks for new devices; frames cross
/// on the threads of the hubs.
/// Errors: the constructor throws `std::runtime_error` when the port cannot be listened on.
class HubGateway {
public:
    using Milliseconds = std::chrono::milliseconds;
    using IInterface = proto::interface::IInterface;

    static constexpr std::chrono::seconds K_SYNC_INTERVAL{1};
    static constexpr std::uint32_t K_REMOTE_ADDRESS = 50000;
    /// What an application's gateway adds to its shared bus address.
    static constexpr std::uint32_t K_LOCAL_ADDRESS_OFFSET = 900;
    static constexpr std::uint32_t K_LOCAL_DOMAIN = 0;
    static constexpr std::uint32_t K_REMOTE_DOMAIN = 1;
    static constexpr std::size_t K_BUFFER_SIZE = 8192;

    struct Settings {
        std::string program; ///< Of both identities; the gateway's name when it is empty.
        bus::Hub::WarningSink warning_sink;
        Milliseconds sync_interval = K_SYNC_INTERVAL;
        Milliseconds address_probe_window = bus::Hub::DEFAULT_ADDRESS_PROBE_WINDOW;
        std::filesystem::path debug_marker_base = bus::K_DEBUG_MARKER_BASE;
    };

    /// Blocks while both hubs claim their addresses. Port 0 has the system choose.
    HubGateway(IInterface& multicast, std::uint32_t local_domain, std::uint32_t local_address,
               std::uint16_t tcp_port, std::uint32_t remote_domain, std::string const& name,
               Settings const& settings);
    HubGateway(IInterface& multicast, std::uint32_t local_domain, std::uint32_t local_address,
               std::uint16_t tcp_port, std::uint32_t remote_domain, std::string const& name)
        : HubGateway(multicast, local_domain, local_address, tcp_port, remote_domain, name,
                     Settings()) {}
    ~HubGateway();
    HubGateway(HubGateway const&) = delete;
    HubGateway& operator=(HubGateway const&) = delete;

    /// The port in use.
    std::uint16_t tcp_port() const { return tcp_.port(); }
    bus::Hub& local_hub() { return local_hub_; }
    bus::Hub& remote_hub() { return remote_hub_; }

private:
    using Buffer = std::array<unsigned char, K_BUFFER_SIZE>;

    /// Closes it before the hubs go, however they do.
    struct ClosedCrossing {
        ~ClosedCrossing() { way->close(); }
        std::shared_ptr<bus::Crossing> const way = std::make_shared<bus::Crossing>();
    };

    void run_sync() TESSARON_EXCLUDES(mutex_);
    void sync_once();

    Milliseconds const sync_interval_;
    proto::interface::TcpServerInterface tcp_;
    Buffer local_rx_{};
    Buffer local_tx_{};
    Buffer remote_rx_{};
    Buffer remote_tx_{};
    bus::Hub local_hub_;
    bus::Hub remote_hub_;
    ClosedCrossing crossing_;
    Mutex mutex_;
    std::condition_variable stopped_;
    bool stop_ TESSARON_GUARDED_BY(mutex_) = false;
    std::thread sync_thread_;
};

} // namespace tessaron
