#pragma once

#include "MirelClientApp/web/http_message.hpp"

#include <string_view>

namespace mirelclient {

/// Answers the opening handshake of RFC 6455: true means that the 101 went out and the socket now
/// speaks frames. False, with nothing written, if the request is no handshake; the caller closes
/// the socket. The protocol version, subprotocols, extensions and the origin are not looked at.
///
/// The socket stays the caller's.
[[nodiscard]] bool ws_handshake(int fd, HttpRequest const& request);

namespace detail {

/// Whether one of the comma-separated pieces of a header's value, without the spaces and tabs
/// around it, is the token. Case does not matter for A to Z; an empty piece never matches.
bool header_contains_token(std::string_view header_value, std::string_view token);

} // namespace detail

} // namespace mirelclient
