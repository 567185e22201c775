#pragma once

#include "MirelClientApp/web/HandlerGate.hpp"
#include "MirelClientApp/web/http_message.hpp"
#include "MirelClientApp/web/route_table.hpp"
#include "app/utilities/file_io.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mirelclient {

/// What connection threads share: the routes, and one connection's way from request to answer.
///
/// Ownership: shared by the server and its connection threads, so that a thread whose client is
/// silent can outlive the server. The handlers themselves go with `retire`.
/// Thread safety: the routes are immutable after the first `open`; the rest is safe from any
/// thread.
/// Errors: answered to the client; see `WebServer` for exceptions out of handlers.
class ConnectionHandler {
public:
    void add(Route route) { routes_.push_back(std::move(route)); }
    void add(WsRoute route) { ws_routes_.push_back(std::move(route)); }

    /// From `open` to `close` handlers are entered.
    void open() { gate_.open(); }
    void close() { gate_.close(); }
    /// Closes for good, waits for the handlers that are running and destroys all of them.
    void retire();

    void handle_connection(tessaron::UniqueFd fd);

    /// Waits until every request whose handler was entered has its answer sent, and no longer than
    /// `time`; false if some are still on their way.
    [[nodiscard]] bool wait_until_answered(std::chrono::milliseconds time) {
        return answers_.wait_until_empty_for(time);
    }

private:
    /// The answer to a request, which is on its way for as long as `answering` lives; nothing if a
    /// WebSocket handler took the connection over, or if no handler may be entered any more.
    std::optional<HttpResponse> answer(tessaron::UniqueFd& fd, std::string raw,
                                       std::optional<HandlerGate::Pass>& answering);
    HttpResponse dispatch(HttpRequest& request) const;

    HandlerGate gate_;
    HandlerGate answers_{true};
    std::vector<Route> routes_;
    std::vector<WsRoute> ws_routes_;
};

} // namespace mirelclient
