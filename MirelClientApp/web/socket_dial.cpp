#include "MirelClientApp/web/socket_dial.hpp"

#include "MirelClientApp/web/socket_io.hpp"
#include "app/utilities/StopEvent.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <span>
#include <utility>

namespace mirelclient {

using tessaron::StopEvent;
using tessaron::UniqueFd;

namespace {

/// How long an attempt goes on for a peer that has left: what it sent before may still arrive.
constexpr std::chrono::milliseconds K_LEFT_GRACE{2000};

/// Waits for the end of an attempt. False when there is no point in waiting any longer.
bool wait_for_attempt(int socket, std::stop_token const& stop, int peer) {
    StopEvent const stop_event(stop);
    if (!stop_event.is_usable()) {
        return false;
    }
    std::array<pollfd, 3> waited{
        {{socket, POLLOUT, 0}, {stop_event.descriptor(), POLLIN, 0}, {peer, POLLRDHUP, 0}}};
    if (!wait_for_any(waited, K_FOREVER)) {
        return false;
    }
    if (waited[0].revents == 0 && waited[1].revents == 0) {
        wait_for_any(std::span(waited).first(2), K_LEFT_GRACE);
    }
    return waited[0].revents != 0 && waited[1].revents == 0;
}

bool is_connected(int socket) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

} // namespace

UniqueFd connect_to(SocketAddress const& address, std::stop_token const& stop, int peer) {
    UniqueFd socket(
        ::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.is_open()) {
        return {};
    }
    int const repeats = K_CONNECT_REPEATS;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_SYNCNT, &repeats, sizeof repeats);
    auto const* const generic = reinterpret_cast<sockaddr const*>(&address.bytes);
    if (connect(socket.get(), generic, address.size) == 0) {
        return socket;
    }
    if (errno != EINPROGRESS && errno != EINTR) {
        return {};
    }
    bool const ended = wait_for_attempt(socket.get(), stop, peer);
    return ended && is_connected(socket.get()) ? std::move(socket) : UniqueFd();
}

UniqueFd dial_local_tcp(unsigned short port, std::stop_token const& stop, int peer) {
    SocketAddress address;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(&address.bytes, &local, sizeof local);
    address.size = sizeof local;
    UniqueFd socket = connect_to(address, stop, peer);
    if (socket.is_open()) {
        fcntl(socket.get(), F_SETFL, fcntl(socket.get(), F_GETFL) & ~O_NONBLOCK);
        int const on = 1;
        setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return socket;
}

} // namespace mirelclient
