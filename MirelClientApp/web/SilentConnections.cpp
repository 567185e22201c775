#include "MirelClientApp/web/SilentConnections.hpp"

#include <array>
#include <cstddef>
#include <iterator>
#include <sys/epoll.h>
#include <utility>

namespace mirelclient {

using tessaron::UniqueFd;

namespace {

constexpr std::size_t K_EVENTS_AT_ONCE = 64;
constexpr int K_FOREVER = -1;

bool watch(int epoll_fd, int fd, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return ::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

} // namespace

SilentConnections::SilentConnections(int listen_fd)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), listen_fd_(listen_fd) {
    if (is_open() && !watch(epoll_.get(), listen_fd, EPOLLIN)) {
        epoll_.reset();
    }
}

SilentConnections::~SilentConnections() {
    for (int const fd : waiting_) {
        UniqueFd const closed_here(fd);
    }
}

void SilentConnections::add(std::vector<UniqueFd>& connections) {
    for (UniqueFd& connection : connections) {
        // Once: from its first event on, it is somebody else's, and closing it ends the watch.
        if (watch(epoll_.get(), connection.get(), EPOLLIN | EPOLLRDHUP | EPOLLONESHOT)) {
            waiting_.insert(connection.release());
        } else {
            unwatched_.push_back(std::move(connection));
        }
    }
    connections.clear();
}

bool SilentConnections::wait(std::vector<UniqueFd>& talking) {
    std::array<epoll_event, K_EVENTS_AT_ONCE> events;
    int const time_out = unwatched_.empty() ? K_FOREVER : 0;
    int const count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), time_out);
    bool listener = false;
    for (int i = 0; i < count; ++i) {
        int const fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == listen_fd_) {
            listener = true;
        } else if (waiting_.erase(fd) == 1) {
            talking.emplace_back(fd);
        }
    }
    std::move(unwatched_.begin(), unwatched_.end(), std::back_inserter(talking));
    unwatched_.clear();
    return listener;
}

} // namespace mirelclient
