#pragma once

#include <cstdlib>

/// Ends a fuzz target that has found what must not be.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}
