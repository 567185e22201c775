#pragma once

#include <string>
#include <string_view>

namespace tessaron {

/// Makes a value safe between single quotes: each single quote becomes the four characters '\''.
/// It adds no surrounding quotes; the caller writes them. Every byte but NUL survives the shell.
std::string shell_quote(std::string_view value);

} // namespace tessaron
