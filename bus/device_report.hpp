#pragma once

#include "bus/DeviceRegistry.hpp"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <unordered_map>

/// Who is on the bus, for people to read; by address. Stateless, safe from any thread.
namespace tessaron::bus {

using DeviceMap = std::unordered_map<std::uint32_t, DiscoveredDevice>;
/// Whether anybody publishes what a subscription's topic, or pattern, stands for.
using HasPublisher = std::function<bool(std::string const& pattern)>;

std::string device_report(DeviceMap const& devices, HasPublisher const& has_publisher);

/// In colour where `out` is the standard output and that shows colours.
void print_device_tables(std::ostream& out, DeviceMap const& devices,
                         HasPublisher const& has_publisher);

} // namespace tessaron::bus
