#include "MirelClientApp/tunnel/WindowWatch.hpp"

#include <limits>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace mirelclient {

using std::chrono::milliseconds;
using tessaron::MutexLock;

WindowWatch::WindowWatch(int socket, milliseconds limit)
    : socket_(socket), limit_(limit), current_limit_(milliseconds::zero()),
      last_look_(Clock::now()) {
    MutexLock const lock(mutex_);
    set_limit_locked(limit_);
}

void WindowWatch::look(Clock::time_point now) {
    MutexLock const lock(mutex_);
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return;
    }
    // Data waits, and yet there is none on its way.
    bool const closed = info.tcpi_notsent_bytes > 0 && info.tcpi_unacked == 0;
    bool const heard = now - milliseconds(info.tcpi_last_ack_recv) > last_look_;
    if (!closed) {
        closed_since_.reset();
        set_limit_locked(limit_);
    } else {
        closed_since_ = closed_since_.value_or(last_look_);
        if (heard) {
            // The system counts from the first probe. The next probe is due within the old limit,
            // and its answer must find the new one; so a period between two looks is added.
            auto const period = now - last_look_;
            set_limit_locked(std::chrono::ceil<milliseconds>(now - *closed_since_ + period) +
                             limit_);
        }
    }
    last_look_ = now;
}

void WindowWatch::set_limit_locked(milliseconds limit) {
    if (limit == current_limit_ || limit.count() > std::numeric_limits<int>::max()) {
        return;
    }
    auto const value = static_cast<unsigned int>(limit.count());
    if (setsockopt(socket_, IPPROTO_TCP, TCP_USER_TIMEOUT, &value, sizeof value) == 0) {
        current_limit_ = limit;
    }
}

} // namespace mirelclient
