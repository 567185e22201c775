#pragma once

#include <chrono>
#include <cstddef>
#include <poll.h>
#include <span>
#include <string_view>
#include <sys/uio.h>

namespace mirelclient {

/// Sends all of it on a blocking socket, going on after partial sends and interrupting signals.
/// False if the peer went away, after which a part may have been sent.
[[nodiscard]] bool send_all(int fd, std::string_view bytes);

/// The same for pieces that leave together, in as few packets as they fit. Uses up the list, not
/// the bytes. At most 1024 pieces.
[[nodiscard]] bool send_all(int fd, std::span<iovec> pieces);

/// The rest of a list of pieces of which `sent` bytes have left; changes the first that is left.
[[nodiscard]] std::span<iovec> drop_sent(std::span<iovec> pieces, std::size_t sent);

inline constexpr std::chrono::milliseconds K_FOREVER{-1};

/// Whether one of the descriptors has something to tell within the time; their `revents` say which.
bool wait_for_any(std::span<pollfd> waited, std::chrono::milliseconds time);

/// The bytes as such a piece.
inline iovec send_piece(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

} // namespace mirelclient
