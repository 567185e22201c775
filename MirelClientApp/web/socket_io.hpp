#pragma once

#include <cstddef>
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

/// The bytes as such a piece.
inline iovec send_piece(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

} // namespace mirelclient
