#include "MirelClientApp/web/socket_io.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/socket.h>
#include <sys/uio.h>

namespace mirelclient {

namespace {

iovec piece(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

/// Drops up to `count` bytes and returns how many more there were to drop.
std::size_t drop(std::string_view& bytes, std::size_t count) {
    std::size_t const dropped = std::min(bytes.size(), count);
    bytes.remove_prefix(dropped);
    return count - dropped;
}

} // namespace

bool send_all(int fd, std::string_view bytes) {
    return send_all(fd, bytes, {});
}

bool send_all(int fd, std::string_view first, std::string_view second) {
    while (!first.empty() || !second.empty()) {
        iovec pieces[] = {piece(first), piece(second)};
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = std::size(pieces);
        ssize_t const sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        std::size_t const rest = drop(first, static_cast<std::size_t>(sent));
        drop(second, rest);
    }
    return true;
}

} // namespace mirelclient
