#pragma once

#include <cstddef>
#include <string>

namespace mirelclient::detail {

/// The standard alphabet with padding (RFC 4648, section 4), without line breaks.
std::string base64_encode(void const* data, std::size_t size);

} // namespace mirelclient::detail
