#include "MirelClientApp/diagnostics/network_lookup.hpp"

#include <gtest/gtest.h>

namespace mirelclient {
namespace {

using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;

HubSummary hub(std::uint32_t address, std::string const& name,
               std::vector<ModuleSummary> modules = {}) {
    return {address, name, 0, std::move(modules)};
}

/// Two hubs on the bus itself; behind it two domains, the first of which has one behind it.
NetworkDomain network() {
    NetworkDomain const deep{30, {hub(310, "deep"), hub(320, "twice")}, {}};
    NetworkDomain const first{20, {hub(300, "first", {{7, "logger", {}}})}, {deep}};
    NetworkDomain const second{40, {hub(410, "twice"), hub(420, "deep")}, {}};
    return {10,
            {hub(300, "weather", {{311, "control", {}}, {2300, "config", {}}}),
             hub(400, "clock", {{411, "control", {}}})},
            {first, second}};
}

constexpr HubLocation K_WEATHER{300, 10};

TEST(FindHubByName, IsTheHubWithItsDomain) {
    EXPECT_EQ(find_hub_by_name(network(), "clock"), (HubLocation{400, 10}));
    EXPECT_EQ(find_hub_by_name(network(), "first"), (HubLocation{300, 20}));
    EXPECT_EQ(find_hub_by_name(network(), "deep"), (HubLocation{310, 30}));
}

TEST(FindHubByName, OfTwoInDifferentDomainsTheFirstInDepthFirstOrderWins) {
    // A domain behind the first child comes before the second child.
    EXPECT_EQ(find_hub_by_name(network(), "twice"), (HubLocation{320, 30}));
    NetworkDomain nearer = network();
    nearer.hubs.push_back(hub(500, "twice"));
    EXPECT_EQ(find_hub_by_name(nearer, "twice"), (HubLocation{500, 10}));
}

TEST(FindHubByName, OfTwoInOneDomainTheFirstInItsListWins) {
    NetworkDomain map = network();
    map.hubs.insert(map.hubs.begin(), hub(900, "clock"));
    EXPECT_EQ(find_hub_by_name(map, "clock"), (HubLocation{900, 10}));
}

TEST(FindHubByName, ANameIsComparedWholeAndModulesHaveNone) {
    for (char const* const name : {"", "cloc", "clocks", "Clock", "control"}) {
        EXPECT_EQ(find_hub_by_name(network(), name), std::nullopt) << name;
    }
    EXPECT_EQ(find_hub_by_name({}, "clock"), std::nullopt);
}

TEST(FindModuleAddressByName, IsThatOfTheHubsModule) {
    EXPECT_EQ(find_module_address_by_name(network(), K_WEATHER, "config"), 2300U);
    EXPECT_EQ(find_module_address_by_name(network(), {400, 10}, "control"), 411U);
    EXPECT_EQ(find_module_address_by_name(network(), {300, 20}, "logger"), 7U);
}

TEST(FindModuleAddressByName, AHubWithoutSuchAModuleEndsTheSearch) {
    // A hub of another domain has this address, too, and a logger.
    EXPECT_EQ(find_module_address_by_name(network(), K_WEATHER, "logger"), std::nullopt);
}

TEST(FindModuleAddressByName, WhereThereIsNoSuchHubThereIsNothing) {
    EXPECT_EQ(find_module_address_by_name(network(), {300, 40}, "config"), std::nullopt);
    EXPECT_EQ(find_module_address_by_name(network(), {500, 10}, "config"), std::nullopt);
    EXPECT_EQ(find_module_address_by_name({}, {}, "config"), std::nullopt);
}

TEST(IsAddressOwnedByHub, ItsOwnAndThoseOfItsModulesAre) {
    for (std::uint32_t const address : {300U, 311U, 2300U}) {
        EXPECT_TRUE(is_address_owned_by_hub(network(), K_WEATHER, address)) << address;
    }
    EXPECT_TRUE(is_address_owned_by_hub(network(), {310, 30}, 310));
}

TEST(IsAddressOwnedByHub, ThoseOfOthersAreNot) {
    for (std::uint32_t const address : {0U, 7U, 10U, 400U, 411U}) {
        EXPECT_FALSE(is_address_owned_by_hub(network(), K_WEATHER, address)) << address;
    }
    EXPECT_FALSE(is_address_owned_by_hub(network(), {500, 10}, 500));
    EXPECT_FALSE(is_address_owned_by_hub(network(), {310, 10}, 310));
}

} // namespace
} // namespace mirelclient
