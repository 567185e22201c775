#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mirelclient {

/// Largest request, head and body together.
inline constexpr std::size_t K_MAX_REQUEST_BYTES = 1024 * 1024;

/// What `read_full_request` left behind.
struct ReadOutcome {
    std::string raw;
    /// Bytes of the peer may still be unread. Closing the socket then resets the connection, which
    /// can destroy an answer on its way; see `linger_close`.
    bool input_may_remain = false;
};

/// The declared length, from the first "content-length:" anywhere in the head, in any case and
/// also inside another header's name; -1 without one.
long extract_content_length(std::string_view head);

/// Reads from a blocking socket until the declared body is there, the peer stops sending or more
/// than `K_MAX_REQUEST_BYTES` have come. `raw` is empty if nothing came, or too much; otherwise it
/// is what came, complete or not. There is no time-out.
ReadOutcome read_full_request(int fd);

} // namespace mirelclient
