#include "MirelClientApp/routes/vnc_routes.hpp"

#include "MirelClientApp/App/config_fields.hpp"

namespace mirelclient {

void register_vnc_routes(WebServer& server, VncBridges& bridges,
                         tessaron::config::ConfigStore<8192> const& config) {
    server.route_ws("GET", "/api/vnc/ws", [&](int fd, HttpRequest const& request) {
        auto const port = static_cast<unsigned short>(config.as_int(config::K_VNC_LOCAL_PORT));
        bridges.serve_viewer(fd, request, port);
    });
}

} // namespace mirelclient
