#include "MirelClientApp/tunnel/TunnelConnection.hpp"

#include "MirelClientApp/web/socket_io.hpp"

#include <array>
#include <cassert>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace mirelclient {

using namespace tessaron::tunnel;
using tessaron::MutexLock;

namespace {

void set_option(int socket, int level, int name, int value) {
    // An option that the system doesn't know costs what it is for, not the tunnel.
    setsockopt(socket, level, name, &value, sizeof value);
}

int seconds_of(std::chrono::seconds duration) {
    return static_cast<int>(duration.count());
}

void set_options(int socket, TunnelLiveness const& liveness) {
    set_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds_of(liveness.keepalive_idle));
    set_option(socket, IPPROTO_TCP, TCP_KEEPINTVL, seconds_of(liveness.keepalive_interval));
    set_option(socket, IPPROTO_TCP, TCP_KEEPCNT, liveness.keepalive_count);
    // A key's echo must not wait for the acknowledgement of the one before.
    set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

} // namespace

TunnelConnection::TunnelConnection(tessaron::UniqueFd socket, TunnelLiveness const& liveness)
    : socket_(std::move(socket)), look_period_(liveness.look_period),
      window_watch_(socket_.get(), liveness.answer_limit) {
    set_options(socket_.get(), liveness);
}

bool TunnelConnection::send_frame(std::uint8_t type, std::uint32_t stream,
                                  std::string_view payload) {
    return send_frames(type, stream, std::span(&payload, 1));
}

bool TunnelConnection::send_frames(std::uint8_t type, std::uint32_t stream,
                                   std::span<std::string_view const> payloads) {
    std::array<FrameHeaderBytes, K_MAX_FRAMES_AT_ONCE> headers;
    std::array<iovec, 2 * K_MAX_FRAMES_AT_ONCE> pieces;
    assert(payloads.size() <= K_MAX_FRAMES_AT_ONCE);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        headers[i] = encode_header({type, stream, static_cast<std::uint32_t>(payloads[i].size())});
        pieces[2 * i] = send_piece({headers[i].data(), headers[i].size()});
        pieces[2 * i + 1] = send_piece(payloads[i]);
    }
    return send_full(std::span(pieces).first(2 * payloads.size()));
}

bool TunnelConnection::send_console_frame(std::uint32_t stream, std::string_view bytes) {
    auto const length = static_cast<std::uint32_t>(bytes.size());
    auto const outer = encode_header(
        {FRAME_DATA, stream, static_cast<std::uint32_t>(K_CONSOLE_HEADER_SIZE + length)});
    auto const inner = encode_console_header(CONSOLE_BYTES, length);
    std::array<iovec, 3> pieces{send_piece({outer.data(), outer.size()}),
                                send_piece({inner.data(), inner.size()}), send_piece(bytes)};
    return send_full(pieces);
}

bool TunnelConnection::send_full(std::span<iovec> pieces) {
    MutexLock const lock(write_mutex_);
    pieces = drop_sent(pieces, 0);
    while (!pieces.empty()) {
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        ssize_t const count = sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
        if (count > 0) {
            pieces = drop_sent(pieces, static_cast<std::size_t>(count));
        } else if (errno == EAGAIN ? !wait(POLLOUT) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::optional<TunnelFrame> TunnelConnection::read_frame() {
    FrameHeaderBytes bytes;
    if (!recv_full(bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    TunnelFrame frame{decode_header(bytes), {}};
    if (frame.header.length > K_MAX_FRAME_PAYLOAD) {
        return std::nullopt;
    }
    frame.payload.resize(frame.header.length);
    if (!recv_full(frame.payload.data(), frame.payload.size())) {
        return std::nullopt;
    }
    return frame;
}

bool TunnelConnection::recv_full(char* buffer, std::size_t size) {
    return input_.read_full(buffer, size,
                            [this](char* to, std::size_t most) { return receive(to, most); });
}

std::size_t TunnelConnection::receive(char* buffer, std::size_t most) {
    for (;;) {
        ssize_t const count = recv(socket_.get(), buffer, most, 0);
        if (count > 0) {
            return static_cast<std::size_t>(count);
        }
        if (count == 0 || (errno == EAGAIN ? !wait(POLLIN) : errno != EINTR)) {
            return 0;
        }
    }
}

bool TunnelConnection::wait(short events) {
    pollfd polled{socket_.get(), events, 0};
    int const count = poll(&polled, 1, static_cast<int>(look_period_.count()));
    if (count == 0) {
        window_watch_.look();
    }
    return count >= 0 || errno == EINTR;
}

void TunnelConnection::shutdown() noexcept {
    ::shutdown(socket_.get(), SHUT_RDWR);
}

} // namespace mirelclient
