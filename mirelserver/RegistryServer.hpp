#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace mirelserver {

struct ServerOptions {
    std::string address = "127.0.0.1";
    unsigned short port = 8080; ///< 0: any free one.
    std::string registry = "./registry";
    unsigned threads = 2;
    unsigned short tunnel_port = 0; ///< On the same address; 0: no tunnels.
};

/// The whole server: its listeners and the threads that all connections share.
///
/// Ownership: owns everything; `run` returns only when its threads have ended.
/// Thread safety: `stop` is safe from any thread; the rest is for one thread.
/// Errors: the constructor throws `std::runtime_error` if the folder is missing or the address
/// cannot be listened on.
class RegistryServer {
public:
    static constexpr std::size_t K_MAX_CONNECTIONS = 4096;
    static constexpr std::size_t K_MAX_TUNNELS = 1024;

    explicit RegistryServer(ServerOptions const& options);
    RegistryServer(RegistryServer const&) = delete;
    RegistryServer& operator=(RegistryServer const&) = delete;
    ~RegistryServer();

    /// "http://127.0.0.1:8080/", with the port that was really taken.
    std::string url() const;
    unsigned short port() const;
    /// Serves until SIGINT, SIGTERM or `stop`.
    void run();
    void stop();

private:
    void end_tunnels();

    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace mirelserver
