#pragma once

#include "MirelClientApp/remote/RegistryClient.hpp"
#include "MirelClientApp/updates/SelfUpdater.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "app/ConfigStore.hpp"

#include <chrono>

namespace mirelclient {

/// What the daemon tells of itself, and changes. What is referred to must outlive the server.
struct SelfServices {
    tessaron::config::ConfigStore<8192>& config;
    RegistryClient& registry;
    SelfUpdater& updater; ///< Its arch is "<cpu>-<os>".
    std::chrono::steady_clock::time_point start_time;
};

/// "/api/self...": the daemon's own facts, configuration and update.
void register_self_routes(WebServer& server, SelfServices const& self);

} // namespace mirelclient
