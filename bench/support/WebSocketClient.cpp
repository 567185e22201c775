#include "bench/support/WebSocketClient.hpp"

#include "bench/support/loopback.hpp"

#include <unistd.h>

namespace bench {

namespace {

constexpr unsigned K_BINARY_FINAL = 0x82;
constexpr unsigned K_MASKED = 0x80;
constexpr std::string_view K_MASK("\x5a\x0f\xc3\x96", 4);

std::uint64_t big_endian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (char const byte : bytes) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

void append_length(std::string& frame, std::size_t size) {
    std::size_t length_bytes = 0;
    if (size < 126) {
        frame += static_cast<char>(K_MASKED | size);
    } else {
        length_bytes = size < 65536 ? 2 : 8;
        frame += static_cast<char>(K_MASKED | (length_bytes == 2 ? 126 : 127));
    }
    for (std::size_t i = length_bytes; i > 0; --i) {
        frame += static_cast<char>(size >> 8 * (i - 1));
    }
}

} // namespace

WebSocketClient::WebSocketClient(std::uint16_t port, std::string const& path) : fd_(dial(port)) {
    send_all(fd_,
             "GET " + path +
                 " HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                 "Sec-WebSocket-Version: 13\r\n"
                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    std::size_t end_of_head = std::string_view::npos;
    while (end_of_head == std::string_view::npos) {
        inbox_.receive(fd_);
        end_of_head = inbox_.unread().find("\r\n\r\n");
    }
    inbox_.drop(end_of_head + 4);
}

WebSocketClient::~WebSocketClient() {
    close(fd_);
}

std::string_view WebSocketClient::read() {
    for (;; inbox_.receive(fd_)) {
        std::string_view const input = inbox_.unread();
        if (input.size() < 2) {
            continue;
        }
        std::uint64_t size = static_cast<unsigned char>(input[1]) & 0x7fU;
        std::size_t const length_bytes = size == 126 ? 2 : size == 127 ? 8 : 0;
        std::size_t const header = 2 + length_bytes;
        if (input.size() < header) {
            continue;
        }
        if (length_bytes > 0) {
            size = big_endian(input.substr(2, length_bytes));
        }
        if (input.size() >= header + size) {
            inbox_.drop(header + size);
            return input.substr(header, size);
        }
    }
}

void WebSocketClient::write(std::string_view payload) {
    send_all(fd_, frame(payload));
}

std::string WebSocketClient::frame(std::string_view payload) {
    std::string frame(1, static_cast<char>(K_BINARY_FINAL));
    append_length(frame, payload.size());
    frame += K_MASK;
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(payload[i] ^ K_MASK[i % K_MASK.size()]);
    }
    return frame;
}

} // namespace bench
