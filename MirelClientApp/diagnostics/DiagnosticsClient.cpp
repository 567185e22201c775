#include "MirelClientApp/diagnostics/DiagnosticsClient.hpp"

#include "libraries/threads/start_thread.hpp"

#include <exception>
#include <utility>

namespace mirelclient {

using tessaron::AppControlClient;

namespace {

constexpr int K_PAUSE_SLICES = 50;

} // namespace

DiagnosticsClient::DiagnosticsClient(tessaron::bus::Hub& hub, std::uint32_t address)
    : own_domain_(hub.domain_hash()),
      client_(AppControlClient::create(hub, address, {.name = "diagnostics"})),
      thread_(tessaron::start_thread("discovery", [this] { discovery_loop(); })) {
}

DiagnosticsClient::~DiagnosticsClient() {
    request_stop();
    thread_.join();
}

void DiagnosticsClient::request_stop() {
    stop_ = true;
    client_->request_stop();
}

void DiagnosticsClient::discovery_loop() {
    while (!stop_) {
        try {
            look_around();
        } catch (std::exception const&) {
            // Out of memory for this map; the next may be smaller.
        }
        for (int slice = 0; slice < K_PAUSE_SLICES && !stop_; ++slice) {
            std::this_thread::sleep_for(K_DISCOVERY_INTERVAL / K_PAUSE_SLICES);
        }
    }
}

void DiagnosticsClient::look_around() {
    auto found = client_->discover_network(0, K_DISCOVERY_TIMEOUT);
    if (found) {
        // A gateway has a name for this bus that only those behind it use.
        found->address = own_domain_;
        MutexLock lock(snapshot_mutex_);
        snapshot_ = std::move(found);
    }
}

bool DiagnosticsClient::aim_at_locked(std::string const& package) {
    MutexLock lock(snapshot_mutex_);
    auto const location = snapshot_ ? find_hub_by_name(*snapshot_, package) : std::nullopt;
    if (!location) {
        return false;
    }
    auto const module_or_hub = [&](char const* name) TESSARON_REQUIRES(snapshot_mutex_) {
        return find_module_address_by_name(*snapshot_, *location, name).value_or(location->hub);
    };
    client_->set_targets(module_or_hub("control"), module_or_hub("config"),
                         module_or_hub("logger"));
    return true;
}

std::optional<HubLocation> DiagnosticsClient::hub_location(std::string const& package) const {
    MutexLock lock(snapshot_mutex_);
    return snapshot_ ? find_hub_by_name(*snapshot_, package) : std::nullopt;
}

bool DiagnosticsClient::hub_owns_address(std::string const& package, std::uint32_t address) const {
    MutexLock lock(snapshot_mutex_);
    auto const location = snapshot_ ? find_hub_by_name(*snapshot_, package) : std::nullopt;
    return location && is_address_owned_by_hub(*snapshot_, *location, address);
}

} // namespace mirelclient
