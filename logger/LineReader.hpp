#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {

/// Reads lines from a descriptor, from its current position on. What stands behind the last
/// newline is a line too, unless it is empty.
///
/// Ownership: the descriptor stays the caller's.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: a read error is the end of the file.
class LineReader {
public:
    explicit LineReader(int fd, std::uint64_t offset = 0);

    /// The next line without its newline; it stays valid until the next call.
    std::optional<std::string_view> next();

    /// Where the next line starts, counted like the `offset` given at construction.
    std::uint64_t offset() const noexcept { return offset_; }

private:
    bool fill();

    int const fd_;
    std::uint64_t offset_;
    std::vector<char> block_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

/// Number of lines in a file; 0 if it cannot be read.
std::uint64_t count_lines(std::string const& path);

} // namespace tessaron
