#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace bench {

/// What has come on a connection and was not used yet.
class Inbox {
public:
    explicit Inbox(std::size_t size) : buffer_(size) {}

    std::string_view unread() const { return {buffer_.data() + begin_, end_ - begin_}; }
    void drop(std::size_t count) { begin_ += count; }
    /// Blocks for more; what was handed out before is not valid any more.
    void receive(int fd);

private:
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace bench
