#include "MirelClientApp/tunnel/TunnelClient.hpp"

#include "MirelClientApp/tunnel/tunnel_dial.hpp"
#include "libraries/threads/start_thread.hpp"

#include <csignal>
#include <exception>
#include <utility>

namespace mirelclient {

using tessaron::MutexLock;

TunnelClient::TunnelClient(std::string tunnel_addr, std::string client_name,
                           unsigned short web_port, unsigned short vnc_local_port,
                           TunnelTargets::SpawnTerminal spawn_terminal,
                           std::chrono::milliseconds reconnect_delay)
    : tunnel_addr_(std::move(tunnel_addr)),
      client_name_(std::move(client_name)), targets_{web_port, vnc_local_port,
                                                     std::move(spawn_terminal)},
      reconnect_delay_(reconnect_delay), stream_threads_(std::make_shared<HandlerGate>(true)) {
    // A peer that goes away is an error of the write, for everything in this process.
    std::signal(SIGPIPE, SIG_IGN);
}

TunnelClient::~TunnelClient() {
    stop();
}

void TunnelClient::start() {
    if (tunnel_addr_.empty() || running_.exchange(true)) {
        return;
    }
    stop_ = std::stop_source();
    thread_ = tessaron::start_thread("tunnel", [this, stop = stop_.get_token()] { run(stop); });
}

void TunnelClient::stop() {
    if (!running_.exchange(false)) {
        return;
    }
    stop_.request_stop();
    close_connection();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void TunnelClient::run(std::stop_token const& stop) {
    while (!stop.stop_requested()) {
        try {
            serve_connection(stop);
        } catch (std::exception const&) {
            // No memory, or no thread, for what the server wanted: as good as a lost connection.
        }
        close_connection();
        pause(stop);
    }
}

void TunnelClient::serve_connection(std::stop_token const& stop) {
    if (auto const session = connect_and_register(stop)) {
        session->read_loop();
    }
}

std::shared_ptr<TunnelSession> TunnelClient::connect_and_register(std::stop_token const& stop) {
    tessaron::UniqueFd socket = dial(tunnel_addr_, stop);
    if (!socket.is_open()) {
        return nullptr;
    }
    auto session =
        std::make_shared<TunnelSession>(std::move(socket), targets_, stop, stream_threads_);
    {
        // From here on a stop wakes whoever waits for the socket.
        MutexLock const lock(connection_mutex_);
        current_ = session;
    }
    bool const stopped_before = stop.stop_requested();
    return !stopped_before && session->send_register(client_name_) ? session : nullptr;
}

void TunnelClient::close_connection() {
    std::shared_ptr<TunnelSession> session;
    {
        MutexLock const lock(connection_mutex_);
        session = std::move(current_);
        current_ = nullptr;
    }
    if (session) {
        session->end();
    }
}

void TunnelClient::pause(std::stop_token const& stop) {
    MutexLock lock(wait_mutex_);
    stopped_.wait_for(lock.native(), stop, reconnect_delay_, [] { return false; });
}

} // namespace mirelclient
