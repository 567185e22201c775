#pragma once

#include "MirelClientApp/web/HandlerGate.hpp"
#include "MirelClientApp/web/http_message.hpp"
#include "MirelClientApp/web/socket_dial.hpp"

#include <chrono>
#include <stop_token>

namespace mirelclient {

/// Moves bytes between a viewer's WebSocket and the screen server on `port`, from the request to
/// the end of the connection, and understands none of them. Takes the socket over.
///
/// Binary messages carry the bytes both ways, any other message is ignored. When the local server
/// closes, pings are still answered, and the viewer's next message ends the bridge; when the viewer
/// goes, so does the local connection, once the local server has taken what came before or has
/// taken nothing for two seconds. Every end is silent: no close frame, no log line.
///
/// A stop request ends the bridge at once. Runs on the connection's thread and starts a second one
/// that it joins.
void handle_vnc_ws(int fd, HttpRequest const& request, unsigned short port,
                   std::stop_token const& stop = {});

/// The daemon's bridges to the screen servers of its packages, and their end on a stop.
///
/// Ownership: must outlive the calls of its functions; the bridges live within them.
/// Thread safety: safe from any thread; no lock is held while a bridge lives.
class VncBridges {
public:
    /// One bridge; takes the socket over and returns when it has ended.
    void serve_viewer(int fd, HttpRequest const& request, unsigned short port);

    /// Ends all bridges; from then on there are no further ones. Does not wait for them.
    void request_stop() { stop_.request_stop(); }
    /// False if a bridge still lives when `time` has passed.
    [[nodiscard]] bool wait_until_ended(std::chrono::milliseconds time) {
        return bridges_.wait_until_empty_for(time);
    }

private:
    std::stop_source stop_;
    HandlerGate bridges_{true};
};

} // namespace mirelclient
