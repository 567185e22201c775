#pragma once

#include "MirelClientApp/remote/RegistryClient.hpp"
#include "MirelClientApp/web/WebServer.hpp"

namespace mirelclient {

/// "/api/registry...": the registry server's listings, passed through as they come. The client
/// must outlive the server.
void register_registry_routes(WebServer& server, RegistryClient const& registry);

} // namespace mirelclient
