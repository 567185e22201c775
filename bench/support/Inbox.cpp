#include "bench/support/Inbox.hpp"

#include "bench/support/loopback.hpp"

#include <cstring>
#include <sys/socket.h>

namespace bench {

void Inbox::receive(int fd) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    ssize_t const got = recv(fd, buffer_.data() + end_, buffer_.size() - end_, 0);
    if (got <= 0) {
        fail("recv");
    }
    end_ += static_cast<std::size_t>(got);
}

} // namespace bench
