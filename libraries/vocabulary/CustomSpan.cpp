#include "libraries/vocabulary/CustomSpan.hpp"

#include <cstdio>
#include <cstdlib>

namespace tessaron::detail {

void custom_span_failure(char const* condition) noexcept {
    std::fprintf(stderr, "CustomSpan: %s does not hold\n", condition);
    std::abort();
}

} // namespace tessaron::detail
