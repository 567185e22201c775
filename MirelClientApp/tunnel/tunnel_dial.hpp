#pragma once

#include "MirelClientApp/web/socket_dial.hpp"
#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

/// Connections to elsewhere, each step of which ends at once when a stop is requested.
namespace mirelclient {

struct HostPort {
    std::string host;
    std::string port;
};

/// Cuts at the last colon, which must stand neither first nor last.
[[nodiscard]] std::optional<HostPort> split_host_port(std::string const& text);

/// The addresses of a name, in the resolver's order; none on a failure or a stop request.
/// The resolver can't be interrupted: then its thread is left to itself.
[[nodiscard]] std::vector<SocketAddress> resolve(HostPort const& where,
                                                 std::stop_token const& stop);

/// To the first of the addresses that answers: a connected, non-blocking socket, or none.
[[nodiscard]] tessaron::UniqueFd dial(std::string const& host_and_port,
                                      std::stop_token const& stop);

/// To a server of this machine: a connected, blocking socket, or none.
[[nodiscard]] inline tessaron::UniqueFd connect_local(std::uint16_t port,
                                                      std::stop_token const& stop) {
    return dial_local_tcp(port, stop);
}

} // namespace mirelclient
