#pragma once

#include <optional>
#include <vector>

/// Payloads as zlib streams.
///
/// Thread safety: safe from any thread; no state.
namespace proto::compression {

/// Deflate makes no stream larger than this many times its size: who announces more announces
/// what cannot be there.
inline constexpr unsigned long K_LARGEST_EXPANSION = 1032;

/// The payload as a zlib stream of the library's default level; no value for an empty payload, or
/// when zlib fails.
[[nodiscard]] std::optional<std::vector<unsigned char>>
compress_payload(std::vector<unsigned char> const& payload);

/// What the stream was before it was compressed. No value unless that is exactly `expected_size`
/// bytes, and at least one. A size that such a stream cannot have is refused before any memory is
/// set aside for it.
[[nodiscard]] std::optional<std::vector<unsigned char>>
decompress_payload(unsigned char const* compressed, unsigned long size, unsigned int expected_size);

} // namespace proto::compression
