#pragma once

#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace tessaron {

/// Which node of its own a service of this application would like to be.
struct ServiceNode {
    std::string label;            ///< The node's name.
    std::string app_name;         ///< The program that the service is part of.
    std::uint32_t shared_address; ///< Of that program's one node, as it is configured.
    std::uint32_t offset;         ///< How far behind it the service would like to be.
};

/// The service's node on the bus: at the address that it would like to have or, where somebody has
/// it, at an alternate one, which application and label alone decide at the first try. Waits for
/// two probe windows at the least, so it must not be called from a handler.
///
/// Thread safety: safe from any thread.
[[nodiscard]] std::shared_ptr<bus::LocalClient> connect_service(bus::IHub& hub,
                                                                ServiceNode const& node);

} // namespace tessaron
