#pragma once

#include "MirelClientApp/web/WebServer.hpp"

namespace mirelclient {

/// The dashboard at "/", and below "/static" the modules and the style sheet that it loads. All of
/// it is served from constants: only their exact names are found, and no file system is behind.
void register_asset_routes(WebServer& server);

} // namespace mirelclient
