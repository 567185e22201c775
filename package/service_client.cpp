#include "package/service_client.hpp"

#include "proto/bus/NodeIdentity.hpp"

#include <functional>

namespace tessaron {

namespace {

/// What a message that comes from behind a hub has room for, without those that mean nobody.
constexpr std::uint64_t K_ADDRESSES = 65533;

std::uint32_t preferred_address(ServiceNode const& node) {
    std::uint64_t const wanted = std::uint64_t{node.shared_address} + node.offset;
    return static_cast<std::uint32_t>((wanted - 1) % K_ADDRESSES + 1);
}

} // namespace

std::shared_ptr<bus::LocalClient> connect_service(bus::IHub& hub, ServiceNode const& node) {
    std::uint64_t const hash = std::hash<std::string>()(node.app_name + "." + node.label);
    std::uint32_t const address =
        hub.resolve_local_client_address(preferred_address(node), hash, node.label);
    return hub.connect(address, proto::bus::make_identity(node.label, node.app_name, 1, "", ""));
}

} // namespace tessaron
