#pragma once

#include "MirelClientApp/diagnostics/DbBrowserClient.hpp"
#include "MirelClientApp/web/WebServer.hpp"

namespace mirelclient {

/// "/api/packages/{name}/db...": the tables of a package's database, over the bus. The client must
/// outlive the server.
void register_database_routes(WebServer& server, DbBrowserClient& databases);

} // namespace mirelclient
