#pragma once

#include "bus/Hub.hpp"

#include <cstdint>
#include <string>

namespace mirelclient {

/// Where the daemon's own services are on the bus, each a node besides that of the process.
///
/// Each has an address that it would like to have, so far behind the one that is configured for the
/// process, and takes an alternate one where somebody has that, which application and label alone
/// decide at the first try.
struct ServiceAddresses {
    std::uint32_t packages = 0;
    std::uint32_t registry = 0;
    std::uint32_t diagnostics = 0;
    std::uint32_t db_browser = 0;

    /// Claims them all in the time that one takes: two probe windows at the least, so it must not
    /// be called from a handler. They are safe from others once somebody is connected there.
    [[nodiscard]] static ServiceAddresses
    claim(tessaron::bus::Hub& hub, std::string const& app_name, std::uint32_t shared_address);
    /// For the registry's node, which comes long after the others: its address once more.
    void claim_registry_again(tessaron::bus::Hub& hub, std::string const& app_name);
};

} // namespace mirelclient
