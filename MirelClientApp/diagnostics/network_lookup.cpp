#include "MirelClientApp/diagnostics/network_lookup.hpp"

#include <algorithm>

namespace mirelclient {

using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;

namespace {

HubSummary const* find_hub(NetworkDomain const& domain, HubLocation const& location) {
    if (domain.address == location.domain) {
        auto const hub =
            std::find_if(domain.hubs.begin(), domain.hubs.end(), [&](HubSummary const& candidate) {
                return candidate.address == location.hub;
            });
        if (hub != domain.hubs.end()) {
            return &*hub;
        }
    }
    for (NetworkDomain const& child : domain.children) {
        if (HubSummary const* const hub = find_hub(child, location)) {
            return hub;
        }
    }
    return nullptr;
}

} // namespace

std::optional<HubLocation> find_hub_by_name(NetworkDomain const& domain, std::string const& name) {
    for (HubSummary const& hub : domain.hubs) {
        if (hub.name == name) {
            return HubLocation{hub.address, domain.address};
        }
    }
    for (NetworkDomain const& child : domain.children) {
        if (auto const location = find_hub_by_name(child, name)) {
            return location;
        }
    }
    return std::nullopt;
}

std::optional<std::uint32_t> find_module_address_by_name(NetworkDomain const& domain,
                                                         HubLocation const& location,
                                                         std::string const& name) {
    HubSummary const* const hub = find_hub(domain, location);
    if (hub == nullptr) {
        return std::nullopt;
    }
    auto const module =
        std::find_if(hub->modules.begin(), hub->modules.end(),
                     [&](ModuleSummary const& candidate) { return candidate.name == name; });
    return module != hub->modules.end() ? std::optional(module->address) : std::nullopt;
}

bool is_address_owned_by_hub(NetworkDomain const& domain, HubLocation const& location,
                             std::uint32_t address) {
    HubSummary const* const hub = find_hub(domain, location);
    return hub != nullptr &&
           (hub->address == address ||
            std::any_of(hub->modules.begin(), hub->modules.end(),
                        [&](ModuleSummary const& module) { return module.address == address; }));
}

} // namespace mirelclient
