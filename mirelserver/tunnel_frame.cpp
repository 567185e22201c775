#include "mirelserver/tunnel_frame.hpp"

namespace mirelserver {

namespace {

std::uint32_t read_u32(char const* bytes) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return value;
}

void append_u32(std::string& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
}

} // namespace

FrameHeader decode_header(std::array<char, K_FRAME_HEADER_SIZE> const& bytes) {
    return {static_cast<std::uint8_t>(bytes[0]), read_u32(&bytes[1]), read_u32(&bytes[5])};
}

std::string encode_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload) {
    std::string frame;
    frame.reserve(K_FRAME_HEADER_SIZE + payload.size());
    frame += static_cast<char>(type);
    append_u32(frame, stream);
    append_u32(frame, static_cast<std::uint32_t>(payload.size()));
    frame += payload;
    return frame;
}

} // namespace mirelserver
