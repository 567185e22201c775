#include "bus/DeviceRegistry.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::steady_clock::time_point K_START{1h};

DiscoveredDevice device(std::uint32_t address, std::string const& name,
                        std::chrono::steady_clock::time_point last_seen = K_START) {
    DiscoveredDevice made;
    made.identity = proto::bus::make_identity(name, "program", 1);
    made.address = address;
    made.last_seen = last_seen;
    return made;
}

TEST(DeviceRegistry, ALaterRecordReplacesTheWholeEarlierOne) {
    DeviceRegistry devices;
    EXPECT_FALSE(devices.find(1));
    DiscoveredDevice earlier = device(1, "a");
    earlier.roles = {"clock"};
    devices.upsert(1, earlier);
    devices.upsert(1, device(1, "b"));
    auto const found = devices.find(1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->identity, device(1, "b").identity);
    EXPECT_TRUE(found->roles.empty());
    EXPECT_EQ(devices.snapshot().size(), 1U);
}

TEST(DeviceRegistry, KnowsWhatPeersHost) {
    DeviceRegistry devices;
    DiscoveredDevice host = device(1, "a");
    host.hosted_modules = {{7, "m", {}}, {8, "n", {}}};
    devices.upsert(1, host);
    EXPECT_TRUE(devices.has_hosted_module(8));
    EXPECT_FALSE(devices.has_hosted_module(1));
}

TEST(DeviceRegistry, AnAddressIsClaimedByADeviceOrByAModuleThatItHosts) {
    DeviceRegistry devices;
    DiscoveredDevice host = device(1, "a");
    host.hosted_modules = {{7, "m", {}}};
    devices.upsert(1, host);
    EXPECT_TRUE(devices.is_claimed(1, K_START));
    EXPECT_TRUE(devices.is_claimed(7, K_START));
    EXPECT_FALSE(devices.is_claimed(8, K_START));
}

TEST(DeviceRegistry, ADeviceHeardOnlyBeforeDoesNotClaim) {
    DeviceRegistry devices;
    devices.upsert(1, device(1, "a", K_START - 1ns));
    EXPECT_FALSE(devices.is_claimed(1, K_START));
    devices.upsert(1, device(1, "a", K_START));
    EXPECT_TRUE(devices.is_claimed(1, K_START));
}

TEST(DeviceRegistry, KnowsNamesExactly) {
    DeviceRegistry devices;
    devices.upsert(1, device(1, "node"));
    EXPECT_TRUE(devices.has_name("node"));
    EXPECT_FALSE(devices.has_name("nod"));
    EXPECT_FALSE(devices.has_name("node2"));
    EXPECT_FALSE(devices.has_name("Node"));
}

TEST(DeviceRegistry, ANameMayFillItsField) {
    DeviceRegistry devices;
    DiscoveredDevice full = device(1, "");
    std::fill(std::begin(full.identity.name), std::end(full.identity.name), 'x');
    devices.upsert(1, full);
    EXPECT_TRUE(devices.has_name(std::string(50, 'x')));
    EXPECT_FALSE(devices.has_name(std::string(49, 'x')));
}

TEST(DeviceRegistry, FullGivesUpTheOneThatHasBeenSilentForLongest) {
    DeviceRegistry devices;
    auto const most = static_cast<std::uint32_t>(DeviceRegistry::K_MAX_DEVICES);
    for (std::uint32_t i = 0; i < most; ++i) {
        devices.upsert(i, device(i, "n", K_START + (i == 100 ? 0s : 1s)));
    }
    devices.upsert(5, device(5, "again", K_START + 2s));
    EXPECT_TRUE(devices.find(100));
    devices.upsert(most, device(most, "new", K_START + 2s));
    EXPECT_FALSE(devices.find(100));
    EXPECT_TRUE(devices.find(most));
    EXPECT_EQ(devices.snapshot().size(), DeviceRegistry::K_MAX_DEVICES);
}

TEST(DeviceRegistry, HoldsNoMoreThanItsLimitHoweverMuchPeersTellOfThemselves) {
    DeviceRegistry devices;
    DiscoveredDevice talker = device(0, "n");
    talker.roles = {std::string(std::size_t{4} << 20, 'x')};
    std::uint32_t const count = 40;
    for (std::uint32_t i = 0; i < count; ++i) {
        talker.address = i;
        talker.last_seen = K_START + std::chrono::seconds(i);
        devices.upsert(i, talker);
        EXPECT_LE(devices.held_size(), DeviceRegistry::K_MAX_HELD_SIZE);
    }
    EXPECT_FALSE(devices.find(0));
    EXPECT_TRUE(devices.find(count - 1));
    EXPECT_TRUE(devices.find(count - 10));
}

TEST(DeviceRegistry, WhatARecordHeldIsGivenBackWhenALaterOneReplacesIt) {
    DeviceRegistry devices;
    devices.upsert(1, device(1, "a"));
    std::size_t const plain = devices.held_size();
    DiscoveredDevice talker = device(1, "a");
    talker.roles = {std::string(5000, 'x')};
    talker.publications = {{"topic", "description", {}, {{"param", "text"}}}};
    devices.upsert(1, talker);
    EXPECT_GT(devices.held_size(), plain + 5000);
    devices.upsert(1, device(1, "a"));
    EXPECT_EQ(devices.held_size(), plain);
}

} // namespace
} // namespace tessaron::bus
