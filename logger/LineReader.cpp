#include "logger/LineReader.hpp"

#include "app/utilities/file_io.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tessaron {
namespace {

constexpr std::size_t K_BLOCK = 64 * 1024;

} // namespace

LineReader::LineReader(int fd, std::uint64_t offset) : fd_(fd), offset_(offset), block_(K_BLOCK) {
}

std::optional<std::string_view> LineReader::next() {
    std::size_t searched = 0;
    for (;;) {
        char const* const line = block_.data() + begin_;
        std::size_t const available = end_ - begin_;
        auto const* newline =
            static_cast<char const*>(std::memchr(line + searched, '\n', available - searched));
        if (newline != nullptr) {
            auto const length = static_cast<std::size_t>(newline - line);
            begin_ += length + 1;
            offset_ += length + 1;
            return std::string_view(line, length);
        }
        searched = available;
        if (!fill()) {
            if (available == 0) {
                return std::nullopt;
            }
            std::string_view const rest(block_.data() + begin_, available);
            begin_ = end_;
            offset_ += available;
            return rest;
        }
    }
}

/// Reads more bytes behind those that no line has taken yet; false at the end of the file.
bool LineReader::fill() {
    std::copy(block_.data() + begin_, block_.data() + end_, block_.data());
    end_ -= begin_;
    begin_ = 0;
    if (end_ == block_.size()) {
        block_.resize(block_.size() * 2); // a line longer than the block
    }
    for (;;) {
        ssize_t const count = ::read(fd_, block_.data() + end_, block_.size() - end_);
        if (count > 0) {
            end_ += static_cast<std::size_t>(count);
            return true;
        }
        if (count == 0 || errno != EINTR) {
            return false;
        }
    }
}

std::uint64_t count_lines(std::string const& path) {
    UniqueFd const file = open_file(path, O_RDONLY);
    if (!file.is_open()) {
        return 0;
    }
    LineReader reader(file.get());
    std::uint64_t count = 0;
    while (reader.next()) {
        ++count;
    }
    return count;
}

} // namespace tessaron
