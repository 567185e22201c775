#include "package/service_client.hpp"

#include "bus/address_derivation.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <functional>

namespace tessaron {

std::shared_ptr<bus::LocalClient> connect_service(bus::IHub& hub, ServiceNode const& node) {
    std::uint64_t const hash = std::hash<std::string>()(node.app_name + "." + node.label);
    std::uint32_t const address = hub.resolve_local_client_address(
        bus::derive_service_address(node.shared_address, node.offset), hash, node.label);
    return hub.connect(address, proto::bus::make_identity(node.label, node.app_name, 1, "", ""));
}

} // namespace tessaron
