#include "app/utilities/BackwardLineReader.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace tessaron {

BackwardLineReader::BackwardLineReader(int fd, std::size_t block)
    : fd_(fd), buffer_(block), begin_(block), end_(block) {
    struct stat status {};
    if (fstat(fd_, &status) == 0 && status.st_size > 0) {
        offset_ = unread_ = static_cast<std::uint64_t>(status.st_size);
    }
    if (fill() && buffer_[end_ - 1] == '\n') {
        --end_; // it ends the last line; there is none behind it
    }
}

std::optional<std::string_view> BackwardLineReader::next() {
    std::size_t searched = 0; // bytes before `end_` that hold no newline
    for (;;) {
        char const* const first = buffer_.data() + begin_;
        std::size_t const held = end_ - begin_;
        auto const* const newline = static_cast<char const*>(memrchr(first, '\n', held - searched));
        if (newline != nullptr) {
            std::string_view const line(newline + 1,
                                        static_cast<std::size_t>(first + held - newline) - 1);
            end_ = static_cast<std::size_t>(newline - buffer_.data());
            offset_ = unread_ + (end_ - begin_) + 1;
            return line;
        }
        searched = held;
        if (fill()) {
            continue;
        }
        if (offset_ == 0) {
            return std::nullopt;
        }
        offset_ = 0;
        std::string_view const line(buffer_.data() + begin_, held); // `fill` may have moved it
        begin_ = end_;
        return line;
    }
}

/// Reads the bytes before those that no line has taken yet; false at the beginning of the file.
bool BackwardLineReader::fill() {
    std::size_t const held = end_ - begin_;
    if (held == buffer_.size()) {
        std::vector<char> larger(buffer_.size() * 2); // a line longer than the block
        std::copy(buffer_.begin(), buffer_.end(), larger.end() - static_cast<std::ptrdiff_t>(held));
        buffer_.swap(larger);
    } else {
        std::memmove(buffer_.data() + buffer_.size() - held, buffer_.data() + begin_, held);
    }
    end_ = buffer_.size();
    begin_ = end_ - held;

    auto const wanted = static_cast<std::size_t>(std::min<std::uint64_t>(begin_, unread_));
    std::size_t count = 0;
    while (count < wanted) {
        ssize_t const n = pread(fd_, buffer_.data() + begin_ - wanted + count, wanted - count,
                                static_cast<off_t>(unread_ - wanted + count));
        if (n > 0) {
            count += static_cast<std::size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            // The file was cut short, or cannot be read. What is held has lost its beginning.
            begin_ = end_;
            offset_ = unread_ = 0;
            return false;
        }
    }
    begin_ -= wanted;
    unread_ -= wanted;
    return wanted > 0;
}

} // namespace tessaron
