#include "MirelClientApp/tunnel/TunnelConnection.hpp"

#include "MirelClientApp/web/socket_io.hpp"

#include <array>
#include <cassert>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
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

timeval time_of(std::chrono::milliseconds duration) {
    constexpr std::chrono::milliseconds K_SECOND{1000};
    return {duration / K_SECOND, (duration % K_SECOND) / std::chrono::microseconds(1)};
}

/// Waits within the calls themselves, which saves two calls for each frame.
void make_blocking(int socket, std::chrono::milliseconds limit) {
    timeval const time = time_of(limit);
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) & ~O_NONBLOCK);
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
    : socket_(std::move(socket)), window_watch_(socket_.get(), liveness.answer_limit) {
    set_options(socket_.get(), liveness);
    make_blocking(socket_.get(), liveness.look_period);
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
        } else if (!may_go_on()) {
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
        if (count == 0 || !may_go_on()) {
            return 0;
        }
    }
}

bool TunnelConnection::may_go_on() {
    if (errno == EAGAIN) {
        window_watch_.look();
        return true;
    }
    return errno == EINTR;
}

void TunnelConnection::shutdown() noexcept {
    ::shutdown(socket_.get(), SHUT_RDWR);
}

} // namespace mirelclient
