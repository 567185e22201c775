#pragma once

#include "MirelClientApp/web/http_message.hpp"

#include <optional>
#include <string_view>

namespace mirelclient {

/// Takes a request apart. Nothing without a blank line, or without two tokens on the first line.
/// The HTTP version and whatever else follows the target is ignored, and the body is everything
/// behind the blank line, not cut to a declared length.
std::optional<HttpRequest> parse_request(std::string_view raw);

} // namespace mirelclient
