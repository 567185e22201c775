// The bridge as the daemon serves it, alone in its process: usage: vnc_ours PORT SCREEN_PORT
#include "MirelClientApp/vnc/vnc_bridge.hpp"
#include "MirelClientApp/web/WebServer.hpp"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    auto const port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    auto const screen_port = static_cast<std::uint16_t>(std::atoi(argv[2]));
    mirelclient::VncBridges bridges;
    mirelclient::WebServer server("127.0.0.1", port);
    server.route_ws("GET", "/websockify",
                    [&bridges, screen_port](int fd, mirelclient::HttpRequest const& request) {
                        bridges.serve_viewer(fd, request, screen_port);
                    });
    if (std::string const error = server.start(); !error.empty()) {
        std::cerr << error << '\n';
        return 1;
    }
    for (;;) {
        pause();
    }
}
