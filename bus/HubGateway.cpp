#include "bus/HubGateway.hpp"

#include "libraries/threads/start_thread.hpp"

#include <algorithm>
#include <exception>
#include <stdexcept>

namespace tessaron {
namespace {

constexpr std::uint32_t K_IDENTITY_VERSION = 1;

proto::bus::NodeIdentity identity(std::string const& name, char const* suffix,
                                  std::string const& program) {
    return proto::bus::make_identity(with_suffix_guaranteed(name, suffix),
                                     program.empty() ? name : program, K_IDENTITY_VERSION);
}

bus::Hub::Settings hub_settings(std::uint32_t domain, HubGateway::Settings const& gateway) {
    bus::Hub::Settings settings;
    settings.domain = domain;
    settings.address_probe_window = gateway.address_probe_window;
    settings.debug_marker_base = gateway.debug_marker_base;
    return settings;
}

template <typename Buffer>
bus::BusWire::Buffer span(Buffer& buffer) {
    return {buffer.data(), buffer.size()};
}

} // namespace

std::string with_suffix_guaranteed(std::string_view name, std::string_view suffix) {
    constexpr std::size_t K_MAX_LENGTH = proto::bus::K_IDENTITY_TEXT_SIZE - 1;
    suffix = suffix.substr(0, K_MAX_LENGTH);
    return std::string(name.substr(0, K_MAX_LENGTH - suffix.size())).append(suffix);
}

HubGateway::HubGateway(IInterface& multicast, std::uint32_t local_domain,
                       std::uint32_t local_address, std::uint16_t tcp_port,
                       std::uint32_t remote_domain, std::string const& name,
                       Settings const& settings)
    : sync_interval_(settings.sync_interval),
      local_hub_(span(local_rx_), span(local_tx_), local_address,
                 identity(name, "-local", settings.program), hub_settings(local_domain, settings)),
      remote_hub_(span(remote_rx_), span(remote_tx_), K_REMOTE_ADDRESS,
                  identity(name, "-tcp", settings.program), hub_settings(remote_domain, settings)) {
    if (!tcp_.open_tcp(tcp_port)) {
        throw std::runtime_error("HubGateway: failed to open TCP listener on port " +
                                 std::to_string(tcp_port));
    }
    local_hub_.set_warning_sink(settings.warning_sink);
    remote_hub_.set_warning_sink(settings.warning_sink);
    local_hub_.set_skip_broadcast_discovery_response(true);
    remote_hub_.set_compression_enabled(true);
    // Before they introduce themselves.
    local_hub_.add_role(bus::Hub::K_GATEWAY_ROLE);
    remote_hub_.add_role(bus::Hub::K_GATEWAY_ROLE);
    local_hub_.set_interfaces(multicast, multicast);
    remote_hub_.set_interfaces(tcp_, tcp_);
    bus::bridge_hubs(local_hub_, remote_hub_, crossing_.way);
    sync_thread_ = start_thread("gateway-sync", [this] { run_sync(); });
}

HubGateway::~HubGateway() {
    {
        MutexLock lock(mutex_);
        stop_ = true;
    }
    stopped_.notify_one();
    if (sync_thread_.joinable()) {
        sync_thread_.join();
    }
}

void HubGateway::run_sync() {
    MutexLock lock(mutex_);
    while (!stopped_.wait_for(lock.native(), sync_interval_,
                              [this]() TESSARON_REQUIRES(mutex_) { return stop_; })) {
        lock.unlock();
        sync_once();
        lock.lock();
    }
}

void HubGateway::sync_once() {
    try {
        local_hub_.discover();
        bus::sync_device_routes(local_hub_, remote_hub_, {}, {}, crossing_.way);
    } catch (std::exception const&) {
        // Out of memory: what was missed is found in the next round.
    }
}

} // namespace tessaron
