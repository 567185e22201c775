#pragma once

#include "logger/LogLevel.hpp"

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {

/// Lines on their way from those who log to the writer thread, one behind the other in one block
/// of memory. A string for each would be allocated by one thread and freed by another, which is
/// what makes callers wait for each other in the allocator.
///
/// Thread safety: one thread at a time, the caller's duty.
class LineBatch {
public:
    /// A batch emptied after a burst gives memory beyond this back.
    static constexpr std::size_t K_KEPT_BYTES = 256 * 1024;

    /// Adds a line made of these pieces, and its newline.
    void add(LogLevel level, std::initializer_list<std::string_view> pieces);

    bool empty() const noexcept { return lines_.empty(); }
    std::size_t size() const noexcept { return lines_.size(); }
    LogLevel level(std::size_t index) const { return lines_[index].level; }
    /// The line with its newline.
    std::string_view text(std::size_t index) const;

    void clear();
    void swap(LineBatch& other) noexcept;

private:
    struct Line {
        LogLevel level;
        std::size_t end;
    };

    std::string text_;
    std::vector<Line> lines_;
};

} // namespace tessaron
