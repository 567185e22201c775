#include "MirelClientApp/ServiceAddresses.hpp"

#include "bus/address_derivation.hpp"

#include <functional>

namespace mirelclient {

ServiceAddresses ServiceAddresses::claim(tessaron::bus::Hub& hub, std::string const& app_name,
                                         std::uint32_t shared_address) {
    auto const wish = [&](std::string const& label, std::uint32_t offset) {
        return tessaron::bus::Hub::AddressWish{
            tessaron::bus::derive_service_address(shared_address, offset),
            std::hash<std::string>()(app_name + "." + label), label};
    };
    auto const addresses =
        hub.resolve_local_client_addresses({wish("pkgmgr", 1000), wish("registry", 2000),
                                            wish("diagnostics", 3000), wish("db_browser", 4000)});
    return {addresses[0], addresses[1], addresses[2], addresses[3]};
}

} // namespace mirelclient
