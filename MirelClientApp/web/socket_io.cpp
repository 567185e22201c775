#include "MirelClientApp/web/socket_io.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/socket.h>

namespace mirelclient {

std::span<iovec> drop_sent(std::span<iovec> pieces, std::size_t sent) {
    while (!pieces.empty() && pieces.front().iov_len <= sent) {
        sent -= pieces.front().iov_len;
        pieces = pieces.subspan(1);
    }
    if (!pieces.empty()) {
        pieces.front().iov_base = static_cast<char*>(pieces.front().iov_base) + sent;
        pieces.front().iov_len -= sent;
    }
    return pieces;
}

bool send_all(int fd, std::string_view bytes) {
    iovec piece = send_piece(bytes);
    return send_all(fd, std::span(&piece, 1));
}

bool send_all(int fd, std::span<iovec> pieces) {
    pieces = drop_sent(pieces, 0);
    while (!pieces.empty()) {
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        ssize_t const sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        pieces = drop_sent(pieces, static_cast<std::size_t>(sent));
    }
    return true;
}

bool wait_for_any(std::span<pollfd> waited, std::chrono::milliseconds time) {
    int count = -1;
    do {
        count = ::poll(waited.data(), waited.size(), static_cast<int>(time.count()));
    } while (count < 0 && errno == EINTR);
    return count > 0;
}

} // namespace mirelclient
