#pragma once

#include <cstdint>
#include <vector>

namespace proto::bus {

/// A payload, or what becomes one.
using Bytes = std::vector<std::uint8_t>;

} // namespace proto::bus
