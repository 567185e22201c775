#pragma once

#include "app/utilities/file_io.hpp"

#include <stop_token>
#include <sys/socket.h>

/// Connections to elsewhere, which a stop request gives up at once.
namespace mirelclient {

/// How often an unanswered request to connect is repeated: it is given up after 7 seconds, so that
/// none of them outlasts a dead network by much.
inline constexpr int K_CONNECT_REPEATS = 2;

inline constexpr int K_NO_PEER = -1;

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t size = 0;
};

/// A connected, non-blocking socket, or none. A server whose queue is full neither takes nor
/// refuses a connection: the wait ends on a stop request, and soon after the other side of `peer`,
/// the socket on whose behalf it is dialled, has closed.
[[nodiscard]] tessaron::UniqueFd connect_to(SocketAddress const& address,
                                            std::stop_token const& stop, int peer = K_NO_PEER);

/// To a port of this machine's own 127.0.0.1: a connected, blocking socket, or none. What is
/// written to it leaves at once: those who use it have cut their data into what should travel
/// together.
[[nodiscard]] tessaron::UniqueFd
dial_local_tcp(unsigned short port, std::stop_token const& stop = {}, int peer = K_NO_PEER);

} // namespace mirelclient
