// Writing to all clients, on the caller's thread, and the limit to what a client that does not read
// costs it. Touches the frame being gathered, and what is left to send.
#include "libraries/interfaces/tcp/TcpServerInterface.hpp"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <tuple>
#include <utility>

namespace proto::interface {

using tessaron::MutexLock;

bool TcpServerInterface::write(Bytes bytes, std::chrono::milliseconds /*timeout*/) {
    return frames_.add(bytes) ? has_client() : send_to_all(bytes);
}

void TcpServerInterface::end_frame() {
    FrameCollector::Bytes frame = frames_.end();
    if (!frame.empty()) {
        std::ignore = send_to_all({frame.data(), frame.size()}); // nobody there: nobody misses it
    }
    frames_.reuse(std::move(frame));
}

bool TcpServerInterface::send_to_all(Bytes bytes) {
    MutexLock const sending(send_mutex_);
    any_sent_ = false;
    {
        MutexLock const lock(clients_mutex_);
        for (Client const& client : clients_) {
            if (client->alive) {
                unsent_.push_back({client, bytes});
            }
        }
    }
    auto const deadline = std::chrono::steady_clock::now() + stall_limit_;
    do {
        std::erase_if(unsent_, [this](Unsent& unsent)
                                   TESSARON_REQUIRES(send_mutex_) { return !send_some(unsent); });
    } while (!unsent_.empty() && wait_for_room(deadline));
    for (Unsent const& unsent : unsent_) {
        unsent.client->drop();
    }
    unsent_.clear();
    return any_sent_;
}

bool TcpServerInterface::send_some(Unsent& unsent) {
    while (!unsent.rest.empty()) {
        ssize_t const sent = ::send(unsent.client->socket.descriptor(), unsent.rest.data(),
                                    unsent.rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        if (sent < 0) {
            unsent.client->drop();
            return false;
        }
        unsent.rest = unsent.rest.subspan(static_cast<std::size_t>(sent));
    }
    any_sent_ = true;
    return false;
}

bool TcpServerInterface::wait_for_room(std::chrono::steady_clock::time_point deadline) {
    std::vector<pollfd> sockets;
    for (Unsent const& unsent : unsent_) {
        sockets.push_back({unsent.client->socket.descriptor(), POLLOUT, 0});
    }
    auto const left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 &&
           ::poll(sockets.data(), sockets.size(), static_cast<int>(left.count())) != 0;
}

} // namespace proto::interface
