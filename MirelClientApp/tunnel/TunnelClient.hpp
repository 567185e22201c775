#pragma once

#include "MirelClientApp/console/PtySession.hpp"
#include "MirelClientApp/tunnel/TunnelSession.hpp"
#include "MirelClientApp/web/HandlerGate.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>

namespace mirelclient {

/// Keeps one TCP connection open to the registry server, over which the server opens streams back
/// to this machine: to its web API, its VNC server and shells. So a machine can be reached that
/// nothing can dial. There is no authentication and no encryption.
///
///     between connections --dialled, name sent--> connected --read or write fails--> pause
///     pause --5 seconds--> between connections; from anywhere --stop--> stopped
///
/// Nothing is logged and nothing reported: the tunnel is tried again for ever.
///
/// Ownership: its thread, which `stop` joins, and the connection. The threads of the streams are
/// detached; they own what they use, and end soon after their connection.
/// Thread safety: `start` and `stop` one thread at a time, the caller's duty.
/// Errors: `std::system_error` from `start` if there is no thread to be had.
class TunnelClient {
public:
    /// From the end of a connection, or of a vain attempt, to the next attempt.
    static constexpr std::chrono::milliseconds K_RECONNECT_DELAY{5'000};

    /// Dials "host:port". The process must ignore SIGPIPE.
    TunnelClient(std::string tunnel_addr, std::string client_name, unsigned short web_port,
                 unsigned short vnc_local_port,
                 TunnelTargets::SpawnTerminal spawn_terminal = &PtySession::spawn,
                 std::chrono::milliseconds reconnect_delay = K_RECONNECT_DELAY);
    ~TunnelClient();
    TunnelClient(TunnelClient const&) = delete;
    TunnelClient& operator=(TunnelClient const&) = delete;

    /// Without an address there is nothing to do; a client that runs already is left alone.
    void start();
    /// Ends the connection and all streams, at once whatever their other sides do. May be repeated.
    void stop();
    /// False if a stream's thread still lives when `time` has passed. After `stop`: shells that
    /// ignore their hang-up are killed within `PtySession::K_HANGUP_GRACE`.
    [[nodiscard]] bool wait_until_streams_ended(std::chrono::milliseconds time) {
        return stream_threads_->wait_until_empty_for(time);
    }

private:
    void run(std::stop_token const& stop);
    /// One connection from its dial to its end, if there is one.
    void serve_connection(std::stop_token const& stop) TESSARON_EXCLUDES(connection_mutex_);
    std::shared_ptr<TunnelSession> connect_and_register(std::stop_token const& stop)
        TESSARON_EXCLUDES(connection_mutex_);
    void close_connection() TESSARON_EXCLUDES(connection_mutex_);
    void pause(std::stop_token const& stop) TESSARON_EXCLUDES(wait_mutex_);

    std::string const tunnel_addr_;
    std::string const client_name_;
    TunnelTargets const targets_;
    std::chrono::milliseconds const reconnect_delay_;
    std::shared_ptr<HandlerGate> const stream_threads_;

    std::atomic<bool> running_{false};
    std::stop_source stop_;
    std::thread thread_;

    tessaron::Mutex wait_mutex_; ///< Guards nothing but the pause.
    std::condition_variable_any stopped_;

    tessaron::Mutex connection_mutex_;
    std::shared_ptr<TunnelSession> current_ TESSARON_GUARDED_BY(connection_mutex_);
};

} // namespace mirelclient
