#include "MirelClientApp/web/WsConnection.hpp"

#include "MirelClientApp/web/socket_io.hpp"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <tuple>

namespace mirelclient {

namespace {

constexpr std::uint8_t K_BIT_7 = 0x80;
constexpr std::uint8_t K_LENGTH_IN_16_BITS = 126;
constexpr std::uint8_t K_LENGTH_IN_64_BITS = 127;
constexpr std::size_t K_LARGEST_HEADER = 10;

/// Writes the header of a final frame without mask, and returns its size.
std::size_t put_header(std::uint8_t opcode, std::uint64_t size,
                       std::array<char, K_LARGEST_HEADER>& header) {
    std::size_t length_bytes = 0;
    std::uint8_t length_code = K_LENGTH_IN_64_BITS;
    if (size < K_LENGTH_IN_16_BITS) {
        length_code = static_cast<std::uint8_t>(size);
    } else if (size < 65536) {
        length_code = K_LENGTH_IN_16_BITS;
        length_bytes = 2;
    } else {
        length_bytes = 8;
    }
    header[0] = static_cast<char>(K_BIT_7 | opcode);
    header[1] = static_cast<char>(length_code);
    for (std::size_t i = 0; i < length_bytes; ++i) {
        header[2 + i] = static_cast<char>(size >> 8 * (length_bytes - 1 - i));
    }
    return 2 + length_bytes;
}

/// The same call takes a mask away. Eight bytes at a time, as far as they go.
void mask(std::vector<std::uint8_t>& payload, std::array<std::uint8_t, 4> const& key) {
    std::uint64_t wide_key = 0;
    std::memcpy(&wide_key, key.data(), key.size());
    std::memcpy(reinterpret_cast<char*>(&wide_key) + key.size(), key.data(), key.size());
    std::size_t i = 0;
    for (; i + sizeof wide_key <= payload.size(); i += sizeof wide_key) {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, payload.data() + i, sizeof bytes);
        bytes ^= wide_key;
        std::memcpy(payload.data() + i, &bytes, sizeof bytes);
    }
    for (; i < payload.size(); ++i) {
        payload[i] ^= key[i % key.size()];
    }
}

} // namespace

WsConnection::WsConnection(int fd) : fd_(fd) {
    // A keystroke's echo must not wait for the acknowledgement of the one before.
    int const on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    // A machine that vanished never says so, and a message may not be due for ever.
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
}

std::optional<WsConnection::Message> WsConnection::read_message() {
    std::uint8_t opcode = K_CONTINUATION;
    std::vector<std::uint8_t> message;
    for (;;) {
        std::optional<Frame> frame = read_frame();
        if (!frame) {
            return std::nullopt;
        }
        std::vector<std::uint8_t>& payload = frame->payload;
        if (frame->opcode == K_PONG) {
            continue;
        }
        if (frame->opcode == K_PING) {
            if (!write_frame(K_PONG, payload.data(), payload.size())) {
                return std::nullopt;
            }
            continue;
        }
        if (frame->opcode == K_CLOSE) {
            std::ignore = write_frame(K_CLOSE, nullptr, 0); // the end either way
            return std::nullopt;
        }
        if (frame->opcode != K_CONTINUATION) {
            opcode = frame->opcode;
        }
        if (message.size() + payload.size() > K_MAX_MESSAGE) {
            return std::nullopt;
        }
        if (message.empty()) {
            message = std::move(payload);
        } else {
            message.insert(message.end(), payload.begin(), payload.end());
        }
        if (frame->fin) {
            return Message{opcode, std::move(message)};
        }
    }
}

std::optional<WsConnection::Frame> WsConnection::read_frame() {
    std::array<std::uint8_t, 2> head;
    if (!read_full(head.data(), head.size())) {
        return std::nullopt;
    }
    Frame frame;
    frame.fin = (head[0] & K_BIT_7) != 0;
    frame.opcode = head[0] & 0x0F;
    bool const masked = (head[1] & K_BIT_7) != 0;
    std::uint64_t size = head[1] & 0x7F;
    if (size >= K_LENGTH_IN_16_BITS) {
        auto const long_size = read_big_endian(size == K_LENGTH_IN_16_BITS ? 2 : 8);
        if (!long_size) {
            return std::nullopt;
        }
        size = *long_size;
    }
    if (size > K_MAX_FRAME_PAYLOAD) {
        return std::nullopt;
    }
    std::array<std::uint8_t, 4> key{};
    if (masked && !read_full(key.data(), key.size())) {
        return std::nullopt;
    }
    frame.payload.resize(static_cast<std::size_t>(size));
    if (!read_full(frame.payload.data(), frame.payload.size())) {
        return std::nullopt;
    }
    if (masked) {
        mask(frame.payload, key);
    }
    return frame;
}

std::optional<std::uint64_t> WsConnection::read_big_endian(std::size_t size) {
    std::array<std::uint8_t, 8> bytes;
    if (!read_full(bytes.data(), size)) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

bool WsConnection::read_full(void* buffer, std::size_t size) {
    return input_.read_full(static_cast<char*>(buffer), size,
                            [this](char* to, std::size_t most) -> std::size_t {
                                ssize_t got = -1;
                                do {
                                    got = ::recv(fd_.get(), to, most, 0);
                                } while (got < 0 && errno == EINTR);
                                return got > 0 ? static_cast<std::size_t>(got) : 0;
                            });
}

bool WsConnection::write_frame(std::uint8_t opcode, void const* data, std::size_t size) {
    std::string_view const message(static_cast<char const*>(data), size);
    return write_messages(opcode, std::span(&message, 1));
}

bool WsConnection::write_messages(std::uint8_t opcode, std::span<std::string_view const> messages) {
    std::array<std::array<char, K_LARGEST_HEADER>, K_MAX_MESSAGES_AT_ONCE> headers;
    std::array<iovec, 2 * K_MAX_MESSAGES_AT_ONCE> pieces;
    assert(messages.size() <= K_MAX_MESSAGES_AT_ONCE);
    for (std::size_t i = 0; i < messages.size(); ++i) {
        std::size_t const header_size = put_header(opcode, messages[i].size(), headers[i]);
        pieces[2 * i] = send_piece(std::string_view(headers[i].data(), header_size));
        pieces[2 * i + 1] = send_piece(messages[i]);
    }
    tessaron::MutexLock const lock(write_mutex_);
    return send_all(fd_.get(), std::span(pieces).first(2 * messages.size()));
}

} // namespace mirelclient
