#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace mirelserver {

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

struct RangeRequest {
    bool satisfiable = true; ///< False: the file ends before the range begins (status 416).
    ByteRange range;
};

/// Reads a "Range" header for a file of `size` bytes. Nothing if there is no single range of bytes
/// in it, and then the whole file is the answer: several ranges and malformed ones are ignored, as
/// a server may do.
std::optional<RangeRequest> parse_range(std::string_view header, std::uint64_t size);

} // namespace mirelserver
