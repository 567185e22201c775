#pragma once

#include "app/utilities/file_io.hpp"

#include <stop_token>

namespace mirelclient {

/// A TCP connection to a port of this machine's own 127.0.0.1; closed where nobody listens.
///
/// A server whose queue is full neither takes nor refuses it for minutes. The wait ends, without a
/// connection, on a stop request, and soon after the other side of `viewer`, the socket on whose
/// behalf it is dialled (-1: none), was closed.
[[nodiscard]] tessaron::UniqueFd dial_local_tcp(unsigned short port,
                                                std::stop_token const& stop = {}, int viewer = -1);

} // namespace mirelclient
