#pragma once

#include "proto/bus/network_map.hpp"
#include "tests/support/bus_nodes.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tessaron::test {

inline constexpr char K_MAP_TOPIC[] = "bus.discover_network";
/// Of what waits for its whole time.
inline constexpr std::chrono::milliseconds K_COLLECT{300};

inline std::vector<std::uint32_t> addresses(proto::bus::NetworkDomain const& domain) {
    std::vector<std::uint32_t> found;
    for (proto::bus::HubSummary const& hub : domain.hubs) {
        found.push_back(hub.address);
    }
    return found;
}

inline bool wait_until_known(bus::Hub const& hub, std::uint32_t address) {
    return wait_until([&] { return hub.discovered_devices().contains(address); },
                      std::to_string(address) + " is known");
}

/// The map with which one node answers.
inline std::optional<proto::bus::NetworkDomain>
ask(bus::Hub& asker, std::uint32_t address, proto::bus::DiscoverNetworkRequest const& question) {
    constexpr std::uint32_t K_CLIENT = 9999;
    auto const client = asker.connect(K_CLIENT, proto::bus::make_identity("asking", "b", 1));
    auto const reply = client->request_to(address, K_MAP_TOPIC, question.build(), K_LONG);
    return reply ? proto::bus::decode_network_domain(*reply) : std::nullopt;
}

} // namespace tessaron::test
