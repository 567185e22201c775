#include "mirelserver/RegistryServer.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr unsigned K_MAX_DEFAULT_THREADS = 4;
constexpr unsigned short K_DEFAULT_TUNNEL_PORT = 7082;

/// Each download takes two descriptors, and the usual soft limit of 1024 is kept only for the sake
/// of programs that use `select`.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int main(int argc, char** argv) {
    mirelserver::ServerOptions options;
    options.threads = std::clamp(std::thread::hardware_concurrency(), 1U, K_MAX_DEFAULT_THREADS);

    options.tunnel_port = K_DEFAULT_TUNNEL_PORT;

    CLI::App app("Serves a registry folder, as mirelpack publishes it, over HTTP, and makes the "
                 "machines that dial in reachable.",
                 "mirelserver");
    app.set_version_flag("--version", "mirelserver " MIREL_VERSION);
    app.add_option("--listen", options.address, "Numeric address to listen on")
        ->capture_default_str();
    app.add_option("--port", options.port, "TCP port; 0 takes any free one")->capture_default_str();
    app.add_option("--tunnel-port", options.tunnel_port,
                   "TCP port that machines dial for their tunnels; 0: none")
        ->capture_default_str();
    app.add_option("--registry", options.registry, "The registry folder")->capture_default_str();
    app.add_option("--threads", options.threads, "Threads that serve all connections")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    try {
        raise_descriptor_limit();
        mirelserver::RegistryServer server(options);
        std::printf("mirelserver: serving %s on %s\n", options.registry.c_str(),
                    server.url().c_str());
        std::fflush(stdout);
        server.run();
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "mirelserver: %s\n", error.what());
        return 1;
    }
}
