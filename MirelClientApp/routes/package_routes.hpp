#pragma once

#include "MirelClientApp/updates/PackageUpdater.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "package/PackageManagerService.hpp"

namespace mirelclient {

/// "/api/packages...": what is installed, and what an operator does with it. The services must
/// outlive the server.
void register_package_routes(WebServer& server, tessaron::PackageManagerService& packages,
                             PackageUpdater& updater);

} // namespace mirelclient
