#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessaron::test {

/// The payload without its last byte, without its last two, ... down to nothing: each in memory of
/// its own, so that a sanitizer sees a read beyond its end.
inline std::vector<std::vector<std::uint8_t>>
cut_everywhere(std::vector<std::uint8_t> const& payload) {
    std::vector<std::vector<std::uint8_t>> cuts;
    for (std::size_t size = 0; size < payload.size(); ++size) {
        cuts.emplace_back(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size));
    }
    return cuts;
}

} // namespace tessaron::test
