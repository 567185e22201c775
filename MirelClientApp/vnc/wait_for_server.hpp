#pragma once

#include <chrono>

namespace mirelclient {

/// What a screen server gets to take a connection, or input, that its viewer asked for and left.
inline constexpr std::chrono::milliseconds K_GRACE_WITHOUT_VIEWER{2000};

/// Waits until the socket to a screen server takes output, or an attempt to connect it is decided,
/// however long that is; but only `K_GRACE_WITHOUT_VIEWER` once the other side of `viewer` was
/// closed, since nobody would end the wait then. False if that has passed, or if the descriptor
/// `stop_event` (-1: none) polls readable.
[[nodiscard]] bool wait_for_server(int server, int viewer, int stop_event = -1);

} // namespace mirelclient
