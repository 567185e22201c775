#include "app/utilities/shell_quote.hpp"

namespace tessaron {

std::string shell_quote(std::string_view value) {
    std::string quoted;
    quoted.reserve(value.size());
    for (char const c : value) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted;
}

} // namespace tessaron
