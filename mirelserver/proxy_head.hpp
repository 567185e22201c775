#pragma once

#include "mirelserver/forward_rule.hpp"

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <string>
#include <string_view>

namespace mirelserver {

using RequestHeader = boost::beast::http::request_header<boost::beast::http::fields>;

/// Whether the connection is to speak another protocol from here on.
bool asks_for_upgrade(RequestHeader const& request);

/// The head of the request as the machine gets it: `forward.target` of `host`, on a connection of
/// its own that ends with the answer, unless an upgrade keeps it.
std::string forwarded_head(RequestHeader const& request, Forward const& forward,
                           std::string_view host);

/// The head of a machine's answer as the browser gets it. `head` reaches up to and with the empty
/// line. The connection ends with the answer; `set_cookie` is left out if empty. An empty text if
/// it is not the head of an HTTP answer.
std::string answered_head(std::string_view head, std::string_view set_cookie);

} // namespace mirelserver
