#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The wire format of the tunnel, as its server end speaks it. Everything on the connection is a
/// frame, in both directions:
///
///     0  1  type
///     1  4  stream id, big-endian
///     5  4  payload length, big-endian
///     9     payload
namespace mirelserver {

inline constexpr std::uint8_t FRAME_REGISTER = 1; ///< The machine's, first and once: its name.
inline constexpr std::uint8_t FRAME_OPEN = 2;     ///< Ours: what the stream is to be joined to.
inline constexpr std::uint8_t FRAME_DATA = 3;
inline constexpr std::uint8_t FRAME_CLOSE = 4;
/// Ours, empty: machines ignore types they don't know, but the kernel of one that is gone does not
/// acknowledge it.
inline constexpr std::uint8_t FRAME_PROBE = 0x7f;

inline constexpr std::size_t K_FRAME_HEADER_SIZE = 9;
/// A machine that sends more loses its connection.
inline constexpr std::uint32_t K_MAX_FRAME_PAYLOAD = std::uint32_t{4} * 1024 * 1024;

struct FrameHeader {
    std::uint8_t type = 0;
    std::uint32_t stream = 0;
    std::uint32_t length = 0;

    bool operator==(FrameHeader const&) const = default;
};

FrameHeader decode_header(std::array<char, K_FRAME_HEADER_SIZE> const& bytes);
/// A whole frame; `payload` has at most `K_MAX_FRAME_PAYLOAD` bytes.
std::string encode_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload = {});

} // namespace mirelserver
