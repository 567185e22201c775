#include "MirelClientApp/tunnel/BackendStream.hpp"

#include "MirelClientApp/tunnel/TunnelConnection.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"

#include <array>
#include <cerrno>
#include <poll.h>
#include <span>
#include <sys/socket.h>
#include <utility>

namespace mirelclient {

namespace {

constexpr std::size_t K_PIECES_AT_ONCE = TunnelConnection::K_MAX_FRAMES_AT_ONCE;

/// A frame has a piece at most; pieces that are there already come and leave in one go.
bool send_pieces(TunnelConnection& connection, std::uint32_t stream, std::string_view bytes) {
    std::array<std::string_view, K_PIECES_AT_ONCE> payloads;
    std::size_t count = 0;
    for (; !bytes.empty(); ++count) {
        payloads[count] = bytes.substr(0, BackendStream::K_READ_SIZE);
        bytes.remove_prefix(payloads[count].size());
    }
    return connection.send_frames(tessaron::tunnel::FRAME_DATA, stream,
                                  std::span(payloads).first(count));
}

} // namespace

BackendStream::BackendStream(tessaron::UniqueFd socket) : socket_(std::move(socket)) {
}

void BackendStream::deliver(std::string_view payload, int tunnel) {
    while (!payload.empty()) {
        ssize_t const count =
            send(socket_.get(), payload.data(), payload.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            payload.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN ? !wait_for_room(tunnel) : errno != EINTR) {
            return;
        }
    }
}

bool BackendStream::wait_for_room(int tunnel) const {
    std::array<pollfd, 2> waited{{{socket_.get(), POLLOUT, 0}, {tunnel, POLLRDHUP, 0}}};
    return poll(waited.data(), waited.size(), -1) >= 0 ? waited[1].revents == 0 : errno == EINTR;
}

void BackendStream::pump_from_backend(TunnelConnection& connection, std::uint32_t stream) {
    std::array<char, K_PIECES_AT_ONCE * K_READ_SIZE> buffer;
    for (;;) {
        ssize_t const count = recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        // What had come before a close is nobody's any more.
        if (count <= 0 || closed_ ||
            !send_pieces(connection, stream, {buffer.data(), static_cast<std::size_t>(count)})) {
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
