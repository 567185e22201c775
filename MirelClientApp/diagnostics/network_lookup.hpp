#pragma once

#include "proto/bus/network_map.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace mirelclient {

/// Where a hub is: addresses repeat beyond gateways, so that of its domain belongs to it.
struct HubLocation {
    std::uint32_t hub = 0;
    std::uint32_t domain = 0;

    bool operator==(HubLocation const&) const = default;
};

/// Looks through a map of the network, each domain before those that lie behind it. The first that
/// fits is the one. Stateless, safe from any thread.

std::optional<HubLocation> find_hub_by_name(proto::bus::NetworkDomain const& domain,
                                            std::string const& name);

/// The address of the hub's module of that name.
std::optional<std::uint32_t> find_module_address_by_name(proto::bus::NetworkDomain const& domain,
                                                         HubLocation const& location,
                                                         std::string const& name);

/// Whether the address is the hub's own, or that of one of its modules.
bool is_address_owned_by_hub(proto::bus::NetworkDomain const& domain, HubLocation const& location,
                             std::uint32_t address);

} // namespace mirelclient
