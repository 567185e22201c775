#pragma once

#include "proto/bus/network_map.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

namespace tessaron::bus {

/// The other side of a gateway, as its near side asks it for a map: on the thread that asks, which
/// may take the whole of the time. `visited` holds the numbers of the hubs that are covered
/// already.
using NetworkSource = std::function<proto::bus::NetworkDomain(
    std::uint8_t max_depth, std::vector<std::uint32_t> const& visited,
    std::chrono::milliseconds timeout)>;

} // namespace tessaron::bus
