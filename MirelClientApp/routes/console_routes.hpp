#pragma once

#include "MirelClientApp/console/Console.hpp"
#include "MirelClientApp/web/WebServer.hpp"

namespace mirelclient {

/// "/api/console...": commands and terminals. The console must outlive the server, and be told to
/// stop before the server's destructor waits for its handlers.
void register_console_routes(WebServer& server, Console& console);

} // namespace mirelclient
