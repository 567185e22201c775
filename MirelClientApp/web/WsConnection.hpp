#pragma once

#include "MirelClientApp/web/ReceiveBuffer.hpp"
#include "app/utilities/file_io.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace mirelclient {

/// The server's end of a WebSocket (RFC 6455) whose handshake is done: no extension, no
/// subprotocol, and every message it sends is one frame.
///
/// Lenient as a server may be: frames without a mask are accepted, the reserved bits are ignored,
/// a close frame's status is neither read nor echoed, and a continuation without a beginning is
/// delivered with opcode 0.
///
/// Ownership: the socket, which must block; the destructor closes it. Another thread's call is
/// ended by a `shutdown` of the socket. A peer that vanished without a word ends it too, as late
/// as the system's keep-alive is set to notice.
/// Thread safety: `write_message` from any thread, one internal lock so that frames never mix, held
/// while a frame is sent; `read_message` on one thread at a time, the caller's duty. It answers
/// pings and the close frame through the same lock.
/// Errors: an empty optional or `false`, after which the connection is of no use.
class WsConnection {
public:
    /// Opcode and payload.
    using Message = std::pair<std::uint8_t, std::vector<std::uint8_t>>;

    static constexpr std::uint8_t K_CONTINUATION = 0;
    static constexpr std::uint8_t K_TEXT = 1;
    static constexpr std::uint8_t K_BINARY = 2;
    static constexpr std::uint8_t K_CLOSE = 8;
    static constexpr std::uint8_t K_PING = 9;
    static constexpr std::uint8_t K_PONG = 10;

    static constexpr std::size_t K_MAX_FRAME_PAYLOAD = 1024 * 1024;
    static constexpr std::size_t K_MAX_MESSAGE = 1024 * 1024;

    explicit WsConnection(int fd);
    WsConnection(WsConnection const&) = delete;
    WsConnection& operator=(WsConnection const&) = delete;

    /// Blocks for the next whole data message, and answers control frames meanwhile, also between
    /// the fragments of a message. Nothing once the peer has closed, or sent what is too large.
    [[nodiscard]] std::optional<Message> read_message();

    /// Sends one message as one frame; blocks while the peer does not read.
    [[nodiscard]] bool write_message(std::uint8_t opcode, void const* data, std::size_t size) {
        return write_frame(opcode, data, size);
    }
    /// Sends several messages, each as a frame of its own, in one go; `K_MAX_MESSAGES_AT_ONCE` at
    /// most.
    [[nodiscard]] bool write_messages(std::uint8_t opcode,
                                      std::span<std::string_view const> messages)
        TESSARON_EXCLUDES(write_mutex_);

    static constexpr std::size_t K_MAX_MESSAGES_AT_ONCE = 16;

private:
    struct Frame {
        bool fin = false;
        std::uint8_t opcode = 0;
        std::vector<std::uint8_t> payload;
    };

    std::optional<Frame> read_frame();
    std::optional<std::uint64_t> read_big_endian(std::size_t size);
    [[nodiscard]] bool read_full(void* buffer, std::size_t size);
    [[nodiscard]] bool write_frame(std::uint8_t opcode, void const* data, std::size_t size)
        TESSARON_EXCLUDES(write_mutex_);

    tessaron::UniqueFd fd_;
    ReceiveBuffer<4096> input_;
    /// Held for one frame, from its first byte to its last.
    tessaron::Mutex write_mutex_;
};

} // namespace mirelclient
