#pragma once

#include "MirelClientApp/web/http_message.hpp"

#include <stop_token>

namespace mirelclient {

/// A terminal over a WebSocket, from the request to the end of the connection: one connection, one
/// shell. Takes the socket over.
///
/// Binary messages are keystrokes one way and output the other; a text message
/// `{"cols":N,"rows":N}` sets the size of the window. The end of the shell does not end the
/// connection by itself: pings are still answered, and the next data message ends it. The end of
/// the connection hangs the shell up; see `PtySession::terminate` for how long that may take.
///
/// A stop request ends the connection at once. Runs on the connection's thread and starts a second
/// one that it joins.
void handle_console_ws(int fd, HttpRequest const& request, std::stop_token const& stop = {});

} // namespace mirelclient
