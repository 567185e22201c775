#include "MirelClientApp/vnc/wait_for_server.hpp"

#include <array>
#include <cerrno>
#include <poll.h>
#include <span>

namespace mirelclient {

namespace {

constexpr std::chrono::milliseconds K_FOREVER{-1};

/// Whether one of them has something to tell within the time.
bool wait_for(std::span<pollfd> waited, std::chrono::milliseconds time) {
    int count = -1;
    do {
        count = ::poll(waited.data(), waited.size(), static_cast<int>(time.count()));
    } while (count < 0 && errno == EINTR);
    return count > 0;
}

} // namespace

bool wait_for_server(int server, int viewer, int stop_event) {
    std::array<pollfd, 3> waited{
        {{server, POLLOUT, 0}, {stop_event, POLLIN, 0}, {viewer, POLLRDHUP, 0}}};
    bool told = wait_for(waited, K_FOREVER);
    if (told && waited[0].revents == 0 && waited[1].revents == 0) {
        told = wait_for(std::span(waited).first(2), K_GRACE_WITHOUT_VIEWER);
    }
    return told && waited[1].revents == 0;
}

} // namespace mirelclient
