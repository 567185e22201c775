#pragma once

#include "MirelClientApp/web/http_message.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/support/Peer.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace mirelclient::test {

/// One frame and its bytes as a browser sends it: masked, unless it says otherwise.
struct WsFrame {
    int opcode = 2;
    std::string payload;
    bool fin = true;
    bool masked = true;

    bool operator==(WsFrame const&) const = default;

    std::string bytes() const {
        constexpr std::array<char, 4> K_KEY{'\x12', '\x73', '\0', '\x7f'};
        std::string text = head();
        if (masked) {
            text.append(K_KEY.data(), K_KEY.size());
        }
        for (std::size_t i = 0; i < payload.size(); ++i) {
            text += static_cast<char>(payload[i] ^ (masked ? K_KEY[i % K_KEY.size()] : '\0'));
        }
        return text;
    }

    /// What stands before the mask.
    std::string head() const {
        std::size_t const size = payload.size();
        std::size_t const length_bytes = size < 126 ? 0 : size < 65536 ? 2 : 8;
        std::size_t const code = length_bytes == 0 ? size : length_bytes == 2 ? 126 : 127;
        std::string text;
        text += static_cast<char>((fin ? 0x80 : 0) | opcode);
        text += static_cast<char>((masked ? 0x80U : 0U) | code);
        for (std::size_t i = length_bytes; i-- > 0;) {
            text += static_cast<char>(size >> 8 * i);
        }
        return text;
    }
};

inline std::ostream& operator<<(std::ostream& out, WsFrame const& frame) {
    return out << "opcode " << frame.opcode << ", " << frame.payload.size()
               << " bytes: " << frame.payload.substr(0, 100);
}

/// The browser's end of a connected socket.
class WsPeer : public Peer {
public:
    explicit WsPeer(int fd) : Peer(tessaron::UniqueFd(fd)) {}

    using Peer::send;
    bool send(WsFrame const& frame) { return send(frame.bytes()); }
    bool type(std::string_view keys) { return send(WsFrame{2, std::string(keys)}); }

    void end_of_input() { ::shutdown(fd(), SHUT_WR); }
    void close() { hang_up(); }

    /// The next whole frame; nothing at the end of the connection.
    std::optional<WsFrame> read_frame() {
        std::string const head = read(2);
        if (head.size() < 2) {
            return std::nullopt;
        }
        std::size_t size = static_cast<unsigned char>(head[1]) & 0x7FU;
        if (size >= 126) {
            std::string const length = read(size == 126 ? 2 : 8);
            size = 0;
            for (char const byte : length) {
                size = size << 8 | static_cast<unsigned char>(byte);
            }
        }
        bool const fin = (head[0] & 0x80) != 0;
        bool const masked = (head[1] & 0x80) != 0;
        WsFrame frame{head[0] & 0x0F, read(size), fin, masked};
        if (frame.payload.size() < size) {
            return std::nullopt;
        }
        return frame;
    }

    /// Everything of the binary frames up to this text; what came until the end of the connection
    /// if it never does.
    std::string read_output_until(std::string_view text) {
        std::string output;
        while (output.find(text) == std::string::npos) {
            auto const frame = read_frame();
            if (!frame) {
                break;
            }
            if (frame->opcode == 2) {
                output += frame->payload;
            }
        }
        return output;
    }
};

/// The two ends of a connection: the server's, and the browser's.
struct SocketPair {
    SocketPair() { ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()); }
    std::array<int, 2> ends{};
};

/// An opening handshake with the key of RFC 6455's example.
inline constexpr std::string_view K_SAMPLE_KEY = "dGhlIHNhbXBsZSBub25jZQ==";
inline constexpr std::string_view K_SAMPLE_ANSWER =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";

inline HttpRequest sample_handshake() {
    HttpRequest request;
    request.method = "GET";
    request.headers = {{"connection", "Upgrade"},
                       {"upgrade", "websocket"},
                       {"sec-websocket-key", std::string(K_SAMPLE_KEY)}};
    return request;
}

} // namespace mirelclient::test
