#pragma once

#include "MirelClientApp/diagnostics/DiagnosticsClient.hpp"
#include "MirelClientApp/web/WebServer.hpp"

namespace mirelclient {

/// "/api/packages/{name}/sessions", ".../crashes", ".../log" and ".../config": what a package's
/// application tells of itself over the bus. The client must outlive the server.
void register_diagnostics_routes(WebServer& server, DiagnosticsClient& diagnostics);

} // namespace mirelclient
