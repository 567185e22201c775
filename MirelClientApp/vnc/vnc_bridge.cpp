#include "MirelClientApp/vnc/vnc_bridge.hpp"

#include "MirelClientApp/vnc/dial_local_tcp.hpp"
#include "MirelClientApp/vnc/wait_for_server.hpp"
#include "MirelClientApp/web/WsConnection.hpp"
#include "MirelClientApp/web/websocket_handshake.hpp"
#include "app/utilities/start_thread.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace mirelclient {

using tessaron::UniqueFd;

namespace {

constexpr std::size_t K_READ_SIZE = 8192;

ssize_t receive(int fd, void* buffer, std::size_t size) {
    ssize_t got = -1;
    do {
        got = ::recv(fd, buffer, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

void send_screen(int local, WsConnection& viewer, std::atomic<bool>& done) {
    std::array<char, K_READ_SIZE> bytes;
    while (!done) {
        ssize_t const size = receive(local, bytes.data(), bytes.size());
        if (size <= 0 || !viewer.write_message(WsConnection::K_BINARY, bytes.data(),
                                               static_cast<std::size_t>(size))) {
            break;
        }
    }
    done = true;
}

/// Blocks while the local server takes no more; a server that never does must not keep the bridge
/// of a viewer that has left.
bool send_input(int local, std::string_view bytes, int viewer) {
    while (!bytes.empty()) {
        ssize_t const sent = ::send(local, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        bool const full = sent == 0 || errno == EAGAIN;
        bool const try_again = full ? wait_for_server(local, viewer) : errno == EINTR;
        if (!try_again) {
            return false;
        }
    }
    return true;
}

void receive_input(int local, WsConnection& viewer, int viewer_fd, std::atomic<bool> const& done) {
    for (;;) {
        auto const message = viewer.read_message();
        // What comes after the local server has closed ends the bridge, whatever it is.
        if (!message || done) {
            return;
        }
        auto const& [opcode, bytes] = *message;
        std::string_view const text(reinterpret_cast<char const*>(bytes.data()), bytes.size());
        if (opcode == WsConnection::K_BINARY && !send_input(local, text, viewer_fd)) {
            return;
        }
    }
}

} // namespace

void handle_vnc_ws(int fd, HttpRequest const& request, unsigned short port,
                   std::stop_token const& stop) {
    UniqueFd socket(fd);
    if (stop.stop_requested() || !ws_handshake(fd, request)) {
        return;
    }
    UniqueFd const local = dial_local_tcp(port, stop, fd);
    if (!local.is_open()) {
        return;
    }
    WsConnection viewer(socket.release());
    auto const end_both = [fd, &local] {
        ::shutdown(fd, SHUT_RDWR);
        ::shutdown(local.get(), SHUT_RDWR);
    };
    std::stop_callback const on_stop(stop, end_both);
    std::atomic<bool> done{false};
    std::thread reader;
    try {
        reader =
            tessaron::start_thread("vnc-reader", [&] { send_screen(local.get(), viewer, done); });
    } catch (std::system_error const&) {
        return; // no thread to be had: as without a screen server
    }
    receive_input(local.get(), viewer, fd, done);
    done = true;
    // The reader may be blocked on either side.
    end_both();
    reader.join();
}

void VncBridges::serve_viewer(int fd, HttpRequest const& request, unsigned short port) {
    HandlerGate::Pass const living(bridges_);
    handle_vnc_ws(fd, request, port, stop_.get_token());
}

} // namespace mirelclient
