#pragma once

#include "mirelserver/RegistryFolder.hpp"
#include "mirelserver/byte_range.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mirelserver {

/// What a request is, for those who answer it. Views into the connection's buffer, valid for the
/// length of the call.
struct Request {
    std::string_view method;
    std::string_view target;
    std::string_view range; ///< The "Range" header, or empty.
};

/// What goes back: a text, or a slice of a file that the connection streams.
struct Reply {
    unsigned status = 200;
    std::string content_type;
    std::string body;
    std::optional<OpenFile> file; ///< Instead of `body`.
    ByteRange slice;              ///< Of `file`.
    std::vector<std::pair<std::string, std::string>> headers;
};

/// `{"error":"<text>"}`.
Reply error_reply(unsigned status, std::string const& text);
/// A 405 that tells what is allowed.
Reply wrong_method_reply(char const* allowed);

} // namespace mirelserver
