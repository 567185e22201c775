#pragma once

#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <sys/socket.h>
#include <vector>

/// Connections to elsewhere, each step of which ends at once when a stop is requested.
namespace mirelclient {

struct HostPort {
    std::string host;
    std::string port;
};

/// Cuts at the last colon, which must stand neither first nor last.
[[nodiscard]] std::optional<HostPort> split_host_port(std::string const& text);

/// How often an unanswered request to connect is repeated: it is given up after 7 seconds, so that
/// none of them outlasts a dead network by much.
inline constexpr int K_CONNECT_REPEATS = 2;

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t size = 0;
};

/// The addresses of a name, in the resolver's order; none on a failure or a stop request.
/// The resolver can't be interrupted: then its thread is left to itself.
[[nodiscard]] std::vector<SocketAddress> resolve(HostPort const& where,
                                                 std::stop_token const& stop);

/// A connected, non-blocking socket, or none.
[[nodiscard]] tessaron::UniqueFd connect_to(SocketAddress const& address,
                                            std::stop_token const& stop);

/// To the first of the addresses that answers: a connected, non-blocking socket, or none.
[[nodiscard]] tessaron::UniqueFd dial(std::string const& host_and_port,
                                      std::stop_token const& stop);

/// To 127.0.0.1: a connected, blocking socket, or none.
[[nodiscard]] tessaron::UniqueFd connect_local(std::uint16_t port, std::stop_token const& stop);

} // namespace mirelclient
