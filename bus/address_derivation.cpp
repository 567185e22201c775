#include "bus/address_derivation.hpp"

#include <functional>

namespace tessaron::bus {
namespace {

/// The source field of a frame has 16 bits; 0xFFFE and 0xFFFF stand for no address.
constexpr std::uint64_t K_ADDRESSES = 65533;

std::uint64_t combine(std::uint64_t a, std::uint64_t b) {
    return a ^ (b + 0x9e3779b97f4a7c15U + (a << 6) + (a >> 2));
}

} // namespace

std::uint32_t derive_alternate_address(unsigned attempt, std::uint64_t hardware_id,
                                       std::string_view name) {
    std::uint64_t const hash =
        combine(combine(std::hash<std::string_view>()(name), hardware_id), attempt);
    return static_cast<std::uint32_t>(hash % K_ADDRESSES + 1);
}

std::uint32_t derive_service_address(std::uint32_t node, std::uint32_t offset) {
    return static_cast<std::uint32_t>((std::uint64_t{node} + offset - 1) % K_ADDRESSES + 1);
}

} // namespace tessaron::bus
