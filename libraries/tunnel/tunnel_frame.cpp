#include "libraries/tunnel/tunnel_frame.hpp"

namespace tessaron::tunnel {
namespace {

std::uint32_t byte_at(char const* bytes, int index) {
    return static_cast<unsigned char>(bytes[index]);
}

} // namespace

std::uint32_t read_u32(char const* bytes) {
    return byte_at(bytes, 0) << 24U | byte_at(bytes, 1) << 16U | byte_at(bytes, 2) << 8U |
           byte_at(bytes, 3);
}

void write_u32(char* bytes, std::uint32_t value) {
    bytes[0] = static_cast<char>(value >> 24U);
    bytes[1] = static_cast<char>(value >> 16U);
    bytes[2] = static_cast<char>(value >> 8U);
    bytes[3] = static_cast<char>(value);
}

std::uint16_t read_u16(char const* bytes) {
    return static_cast<std::uint16_t>(byte_at(bytes, 0) << 8U | byte_at(bytes, 1));
}

FrameHeader decode_header(FrameHeaderBytes const& bytes) {
    return {static_cast<std::uint8_t>(bytes[0]), read_u32(bytes.data() + 1),
            read_u32(bytes.data() + 5)};
}

FrameHeaderBytes encode_header(FrameHeader const& header) {
    FrameHeaderBytes bytes;
    bytes[0] = static_cast<char>(header.type);
    write_u32(bytes.data() + 1, header.stream);
    write_u32(bytes.data() + 5, header.length);
    return bytes;
}

ConsoleHeaderBytes encode_console_header(std::uint8_t kind, std::uint32_t length) {
    ConsoleHeaderBytes bytes;
    bytes[0] = static_cast<char>(kind);
    write_u32(bytes.data() + 1, length);
    return bytes;
}

std::string encode_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload) {
    auto const header = encode_header({type, stream, static_cast<std::uint32_t>(payload.size())});
    std::string frame;
    frame.reserve(header.size() + payload.size());
    frame.append(header.data(), header.size());
    frame.append(payload);
    return frame;
}

} // namespace tessaron::tunnel
