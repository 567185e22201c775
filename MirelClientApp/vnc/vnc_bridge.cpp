#include "MirelClientApp/vnc/vnc_bridge.hpp"

#include "MirelClientApp/web/WsConnection.hpp"
#include "MirelClientApp/web/socket_io.hpp"
#include "MirelClientApp/web/websocket_handshake.hpp"
#include "libraries/threads/start_thread.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace mirelclient {

using tessaron::UniqueFd;

namespace {

constexpr std::size_t K_PIECE_SIZE = 8192;
constexpr std::size_t K_PIECES_AT_ONCE = WsConnection::K_MAX_MESSAGES_AT_ONCE;
/// How long a local server that takes nothing is waited for when its viewer has left.
constexpr std::chrono::milliseconds K_UNREAD_GRACE{2000};

ssize_t receive(int fd, std::span<char> buffer) {
    ssize_t got = -1;
    do {
        got = ::recv(fd, buffer.data(), buffer.size(), 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

/// A message has a piece at most; pieces that are there already come and leave in one go.
bool send_pieces(WsConnection& viewer, std::string_view bytes) {
    std::array<std::string_view, K_PIECES_AT_ONCE> messages;
    std::size_t count = 0;
    for (; !bytes.empty(); ++count) {
        messages[count] = bytes.substr(0, K_PIECE_SIZE);
        bytes.remove_prefix(messages[count].size());
    }
    return viewer.write_messages(WsConnection::K_BINARY, std::span(messages).first(count));
}

void send_screen(int local, WsConnection& viewer, std::atomic<bool>& done) {
    std::array<char, K_PIECES_AT_ONCE * K_PIECE_SIZE> buffer;
    while (!done) {
        ssize_t const size = receive(local, buffer);
        if (size <= 0 || !send_pieces(viewer, {buffer.data(), static_cast<std::size_t>(size)})) {
            break;
        }
    }
    done = true;
}

/// False if the local server is full and stays so, with nobody there any more to wait for it.
bool wait_for_room(int local, int viewer) {
    std::array<pollfd, 2> waited{{{local, POLLOUT, 0}, {viewer, POLLRDHUP, 0}}};
    return wait_for_any(waited, K_FOREVER) &&
           (waited[0].revents != 0 || wait_for_any(std::span(waited).first(1), K_UNREAD_GRACE));
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
        bool const try_again = full ? wait_for_room(local, viewer) : errno == EINTR;
        if (!try_again) {
            return false;
        }
    }
    return true;
}

void receive_input(int local, WsConnection& viewer, int viewer_fd, std::atomic<bool> const& done) {
    for (;;) {
        // Also when the local server has closed meanwhile: pings are answered within.
        auto const message = viewer.read_message();
        if (!message) {
            return;
        }
        auto const& [opcode, bytes] = *message;
        std::string_view const text(reinterpret_cast<char const*>(bytes.data()), bytes.size());
        // What comes after the local server has closed ends the bridge, whatever it is.
        if (done || (opcode == WsConnection::K_BINARY && !send_input(local, text, viewer_fd))) {
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
