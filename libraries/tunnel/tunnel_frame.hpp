#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The wire format of the tunnel between a machine and its server, for both of them. Everything on
/// the connection is a frame, in both directions:
///
///     0  1  type
///     1  4  stream id, big-endian
///     5  4  payload length, big-endian
///     9     payload
///
/// Within the data of a console stream stand sub-frames, cut into frames at will:
///
///     0  1  kind
///     1  4  length, big-endian
///     5     data
namespace tessaron::tunnel {

inline constexpr std::uint8_t FRAME_REGISTER = 1; ///< The machine's, first and once: its name.
inline constexpr std::uint8_t FRAME_OPEN = 2;     ///< The server's: "http", "vnc" or "console".
inline constexpr std::uint8_t FRAME_DATA = 3;
inline constexpr std::uint8_t FRAME_CLOSE = 4;

inline constexpr std::uint8_t CONSOLE_BYTES = 1;  ///< To the shell's input, from its output.
inline constexpr std::uint8_t CONSOLE_RESIZE = 2; ///< The server's: columns and rows, 16 bits each.

inline constexpr std::size_t K_FRAME_HEADER_SIZE = 9;
inline constexpr std::size_t K_CONSOLE_HEADER_SIZE = 5;
inline constexpr std::size_t K_CONSOLE_RESIZE_SIZE = 4;
/// Whoever sends more loses the connection.
inline constexpr std::uint32_t K_MAX_FRAME_PAYLOAD = std::uint32_t{4} * 1024 * 1024;

struct FrameHeader {
    std::uint8_t type = 0;
    std::uint32_t stream = 0;
    std::uint32_t length = 0;

    bool operator==(FrameHeader const&) const = default;
};

using FrameHeaderBytes = std::array<char, K_FRAME_HEADER_SIZE>;
using ConsoleHeaderBytes = std::array<char, K_CONSOLE_HEADER_SIZE>;

std::uint32_t read_u32(char const* bytes);
void write_u32(char* bytes, std::uint32_t value);
std::uint16_t read_u16(char const* bytes);

FrameHeader decode_header(FrameHeaderBytes const& bytes);
FrameHeaderBytes encode_header(FrameHeader const& header);
ConsoleHeaderBytes encode_console_header(std::uint8_t kind, std::uint32_t length);

/// A whole frame; `payload` has at most `K_MAX_FRAME_PAYLOAD` bytes.
std::string encode_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload = {});

} // namespace tessaron::tunnel
