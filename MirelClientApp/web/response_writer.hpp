#pragma once

#include "MirelClientApp/web/http_message.hpp"
#include "app/utilities/file_io.hpp"

#include <string_view>

namespace mirelclient {

/// The reason of 200, 400, 404 and 500; any other status has none, and its status line ends in a
/// blank.
std::string_view reason_phrase(int status);

/// Sends the whole response. If the peer goes away, the rest is dropped silently.
void write_response(int fd, HttpResponse const& response);

/// Closes a socket on which unread input may stand or still arrive: closes our direction first,
/// then discards what comes until the peer closes its own, for a bounded time and amount, so that
/// the answer arrives instead of a reset.
void linger_close(tessaron::UniqueFd fd);

} // namespace mirelclient
