#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace tessaron::bus {

/// A text of a `NodeIdentity`: ends at the first zero byte or after `size` bytes.
inline std::string identity_field_to_string(char const* field, std::size_t size) {
    return {field, std::find(field, field + size, '\0')};
}

} // namespace tessaron::bus
