#include "MirelClientApp/tunnel/BackendStream.hpp"

#include "MirelClientApp/tunnel/TunnelConnection.hpp"
#include "MirelClientApp/tunnel/tunnel_frame.hpp"

#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace mirelclient {

BackendStream::BackendStream(tessaron::UniqueFd socket) : socket_(std::move(socket)) {
    // Both sides have cut their data into what should travel at once.
    int const on = 1;
    setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void BackendStream::deliver(std::string_view payload) {
    while (!payload.empty()) {
        ssize_t const count = send(socket_.get(), payload.data(), payload.size(), MSG_NOSIGNAL);
        if (count > 0) {
            payload.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return;
        }
    }
}

void BackendStream::pump_from_backend(TunnelConnection& connection, std::uint32_t stream) {
    std::array<char, K_READ_SIZE> buffer;
    for (;;) {
        ssize_t const count = recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        // What had come before a close is nobody's any more.
        if (count <= 0 || closed_ ||
            !connection.send_frame(FRAME_DATA, stream,
                                   {buffer.data(), static_cast<std::size_t>(count)})) {
            return;
        }
    }
}

void BackendStream::close() noexcept {
    closed_ = true;
    // The descriptor itself goes with the object, when no thread can be in a call with it.
    shutdown(socket_.get(), SHUT_RDWR);
}

} // namespace mirelclient
