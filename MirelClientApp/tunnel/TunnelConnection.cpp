#include "MirelClientApp/tunnel/TunnelConnection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
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

/// What is left of the two parts after `count` bytes of them.
void skip(std::array<iovec, 2>& parts, std::size_t count) {
    for (iovec& part : parts) {
        std::size_t const step = std::min(count, part.iov_len);
        part.iov_base = static_cast<char*>(part.iov_base) + step;
        part.iov_len -= step;
        count -= step;
    }
}

iovec part_of(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

} // namespace

TunnelConnection::TunnelConnection(tessaron::UniqueFd socket, TunnelLiveness const& liveness)
    : socket_(std::move(socket)), look_period_(liveness.look_period),
      window_watch_(socket_.get(), liveness.answer_limit) {
    set_options(socket_.get(), liveness);
}

bool TunnelConnection::send_frame(std::uint8_t type, std::uint32_t stream,
                                  std::string_view payload) {
    auto const header = encode_header({type, stream, static_cast<std::uint32_t>(payload.size())});
    return send_full({header.data(), header.size()}, payload);
}

bool TunnelConnection::send_console_frame(std::uint32_t stream, std::string_view bytes) {
    auto const length = static_cast<std::uint32_t>(bytes.size());
    auto const outer = encode_header(
        {FRAME_DATA, stream, static_cast<std::uint32_t>(K_CONSOLE_HEADER_SIZE + length)});
    auto const inner = encode_console_header(CONSOLE_BYTES, length);
    std::array<char, K_FRAME_HEADER_SIZE + K_CONSOLE_HEADER_SIZE> header;
    std::memcpy(header.data(), outer.data(), outer.size());
    std::memcpy(header.data() + outer.size(), inner.data(), inner.size());
    return send_full({header.data(), header.size()}, bytes);
}

bool TunnelConnection::send_full(std::string_view header, std::string_view payload) {
    std::array<iovec, 2> parts{part_of(header), part_of(payload)};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    std::size_t left = header.size() + payload.size();
    MutexLock const lock(write_mutex_);
    while (left > 0) {
        ssize_t const count = sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
        if (count > 0) {
            skip(parts, static_cast<std::size_t>(count));
            left -= static_cast<std::size_t>(count);
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
    while (size > 0) {
        ssize_t const count = recv(socket_.get(), buffer, size, 0);
        if (count > 0) {
            buffer += count;
            size -= static_cast<std::size_t>(count);
        } else if (count == 0 || (errno == EAGAIN ? !wait(POLLIN) : errno != EINTR)) {
            return false;
        }
    }
    return true;
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
