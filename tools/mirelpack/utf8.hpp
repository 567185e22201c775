#pragma once

#include <string_view>

namespace mirelpack {

/// True for well-formed UTF-8 (no surrogates, no overlong forms), which JSON text has to be.
bool is_utf8(std::string_view text);

} // namespace mirelpack
