#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tessaron {

/// Reads the lines of a file from the last to the first, so that what was appended to it lately is
/// found in a time that does not depend on the file's length.
///
/// The lines are those that reading forwards gives: what stands behind the last newline is a line
/// too, unless it is empty. What is appended while the reader lives is not seen.
///
/// Ownership: the descriptor stays the caller's; its position is neither used nor changed.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: what cannot be read (or seeked in) has no lines before it.
class BackwardLineReader {
public:
    static constexpr std::size_t K_BLOCK = 16 * 1024;

    /// Reads in steps of at least `block` bytes, which must not be 0.
    explicit BackwardLineReader(int fd, std::size_t block = K_BLOCK);

    /// The line before the last one returned, without its newline; it stays valid until the next
    /// call.
    std::optional<std::string_view> next();

    /// Where the line returned last starts; at first, the size of the file.
    std::uint64_t offset() const noexcept { return offset_; }

private:
    bool fill();

    int const fd_;
    std::uint64_t offset_ = 0; ///< start of what was returned
    std::uint64_t unread_ = 0; ///< bytes of the file before those in the buffer
    std::vector<char> buffer_; ///< [begin_, end_) was read and is in no line yet
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace tessaron
