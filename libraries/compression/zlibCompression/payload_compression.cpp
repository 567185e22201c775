#include "libraries/compression/zlibCompression/payload_compression.hpp"

#include <zlib.h>

namespace proto::compression {

std::optional<std::vector<unsigned char>>
compress_payload(std::vector<unsigned char> const& payload) {
    if (payload.empty()) {
        return std::nullopt;
    }
    uLongf size = compressBound(payload.size());
    std::vector<unsigned char> compressed(size);
    if (compress2(compressed.data(), &size, payload.data(), payload.size(),
                  Z_DEFAULT_COMPRESSION) != Z_OK) {
        return std::nullopt;
    }
    compressed.resize(size);
    return compressed;
}

std::optional<std::vector<unsigned char>> decompress_payload(unsigned char const* compressed,
                                                             unsigned long size,
                                                             unsigned int expected_size) {
    if (compressed == nullptr || size == 0 || expected_size == 0 ||
        expected_size / K_LARGEST_EXPANSION > size) {
        return std::nullopt;
    }
    std::vector<unsigned char> payload(expected_size);
    uLongf payload_size = expected_size;
    if (uncompress(payload.data(), &payload_size, compressed, size) != Z_OK ||
        payload_size != expected_size) {
        return std::nullopt;
    }
    return payload;
}

} // namespace proto::compression
