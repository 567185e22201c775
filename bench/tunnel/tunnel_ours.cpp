// The machine's end of a tunnel, alone in its process: usage: tunnel_ours TUNNEL_PORT BACKEND_PORT
#include "MirelClientApp/tunnel/TunnelClient.hpp"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    auto const backend = static_cast<std::uint16_t>(std::atoi(argv[2]));
    mirelclient::TunnelClient tunnel(std::string("127.0.0.1:") + argv[1], "bench", backend,
                                     backend);
    tunnel.start();
    for (;;) {
        pause();
    }
}
