#pragma once

#include "MirelClientApp/remote/RegistryClient.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "app/ConfigStore.hpp"

#include <chrono>
#include <string>

namespace mirelclient {

/// What the daemon tells of itself. What is referred to must outlive the server.
struct SelfFacts {
    tessaron::config::ConfigStore<8192>& config;
    RegistryClient& registry;
    std::string version;
    std::string arch; ///< "<cpu>-<os>"
    std::chrono::steady_clock::time_point start_time;
};

/// "/api/self...": the daemon's own facts and configuration.
void register_self_routes(WebServer& server, SelfFacts const& facts);

} // namespace mirelclient
