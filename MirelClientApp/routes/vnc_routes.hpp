#pragma once

#include "MirelClientApp/vnc/vnc_bridge.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "app/ConfigStore.hpp"

namespace mirelclient {

/// "/api/vnc/ws": the bridge to the screen server on the port that the setting `vnc_local_port`
/// names at the time of each connection. What is referred to must outlive the server.
void register_vnc_routes(WebServer& server, VncBridges& bridges,
                         tessaron::config::ConfigStore<8192> const& config);

} // namespace mirelclient
