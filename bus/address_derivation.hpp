#pragma once

#include <cstdint>
#include <string_view>

namespace tessaron::bus {

/// The address to try next when the one that was wanted is taken: 1 to 65533, the same each time
/// for the same arguments. Two nodes that compete differ in one of them.
std::uint32_t derive_alternate_address(unsigned attempt, std::uint64_t hardware_id,
                                       std::string_view name);

/// Where a service of a node would like to be: so far behind the address that the node would, and
/// within 1 to 65533, beyond which they begin anew.
std::uint32_t derive_service_address(std::uint32_t node, std::uint32_t offset);

} // namespace tessaron::bus
