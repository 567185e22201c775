#pragma once

#include "MirelClientApp/web/http_message.hpp"
#include "MirelClientApp/web/route_table.hpp"
#include "app/utilities/file_io.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace mirelclient {

class ConnectionHandler;
class ConnectionThreads;
class SilentConnections;

/// A small HTTP/1.1 server: plain TCP over IPv4, one thread and exactly one request per
/// connection (the thread begins when the client does), a fixed table of routes and one of
/// WebSocket routes. No TLS, authentication, keep-alive or chunked transfer, no read time-out and
/// no limit on connections.
///
///     WebServer server("127.0.0.1", 7080);
///     server.route("GET", "/api/packages/{name}", handler);
///     if (std::string const error = server.start(); !error.empty()) { ... }
///
/// The first route that matches wins. An exception derived from `std::exception` out of a handler
/// becomes a 500 with its text; any other one, and any out of a WebSocket handler, ends the
/// process, as it leaves a thread.
///
/// Ownership: handlers are called on connection threads, with no lock held, several at a time, and
/// may block. They and what they refer to must stay alive until the destructor has returned: it
/// waits for the handlers that are running. A WebSocket handler runs as long as its connection
/// lives, so the owner of such handlers shuts their sockets down first, as it cancels whatever
/// else a handler may be blocked in. The destructor must not be called from a handler.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `start()` returns a text; what happens to single connections later is not reported.
class WebServer {
public:
    using Segment = mirelclient::Segment;
    using Route = mirelclient::Route;
    using WsRoute = mirelclient::WsRoute;

    /// An empty address, or "0.0.0.0", means all interfaces; host names are not resolved. Port 0
    /// takes a free one, see `port()`. Nothing happens on the network yet.
    WebServer(std::string bind_addr, unsigned short port);
    ~WebServer();
    WebServer(WebServer const&) = delete;
    WebServer& operator=(WebServer const&) = delete;

    /// Both before `start()`: the tables are read without a lock from then on.
    void route(std::string method, std::string const& pattern, HttpHandler handler);
    void route_ws(std::string method, std::string const& pattern, WebSocketHandler handler);

    /// Empty on success, else the reason; a failed start changes nothing and can be repeated.
    /// A server that runs already is left alone.
    [[nodiscard]] std::string start();

    /// Takes no further connection and enters no further handler; a connection that has said
    /// nothing yet, or whose request is complete only now, is closed without an answer. Waits
    /// neither for running handlers nor for peers. May be repeated.
    void stop();

    /// Waits until the requests whose handlers were entered are answered, WebSockets aside, but no
    /// longer than `time`: a peer that does not read holds its answer up. False if some are not.
    [[nodiscard]] bool wait_until_answered(std::chrono::milliseconds time);

    /// The port that is really bound while the server runs, else the configured one.
    std::uint16_t port() const { return listen_fd_.is_open() ? bound_port_ : port_; }

private:
    void accept_loop();

    std::string bind_addr_;
    std::uint16_t port_;
    std::uint16_t bound_port_ = 0;
    tessaron::UniqueFd listen_fd_;
    std::atomic<bool> running_{false};
    std::thread accept_thread_;
    /// The routes and all else that a connection thread touches; those threads share it.
    std::shared_ptr<ConnectionHandler> handler_;
    std::unique_ptr<ConnectionThreads> threads_;
    /// The accept thread's while it runs.
    std::unique_ptr<SilentConnections> silent_;
};

} // namespace mirelclient
