#include "MirelClientApp/ServiceAddresses.hpp"

#include "bus/address_derivation.hpp"

#include <functional>

namespace mirelclient {

namespace {

constexpr char K_REGISTRY[] = "registry";

std::uint64_t hash_of(std::string const& app_name, std::string const& label) {
    return std::hash<std::string>()(app_name + "." + label);
}

} // namespace

ServiceAddresses ServiceAddresses::claim(tessaron::bus::Hub& hub, std::string const& app_name,
                                         std::uint32_t shared_address) {
    auto const wish = [&](std::string const& label, std::uint32_t offset) {
        return tessaron::bus::Hub::AddressWish{
            tessaron::bus::derive_service_address(shared_address, offset), hash_of(app_name, label),
            label};
    };
    auto const addresses =
        hub.resolve_local_client_addresses({wish("pkgmgr", 1000), wish(K_REGISTRY, 2000),
                                            wish("diagnostics", 3000), wish("db_browser", 4000)});
    return {addresses[0], addresses[1], addresses[2], addresses[3]};
}

void ServiceAddresses::claim_registry_again(tessaron::bus::Hub& hub, std::string const& app_name) {
    registry =
        hub.resolve_local_client_address(registry, hash_of(app_name, K_REGISTRY), K_REGISTRY);
}

} // namespace mirelclient
