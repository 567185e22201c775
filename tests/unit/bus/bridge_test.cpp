#include "bus/bridge.hpp"

#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using namespace test;
using testing::ElementsAre;

/// Two hubs on a bus each, of the domains 0 and 1.
struct TwoSides {
    ~TwoSides() { crossing->close(); }

    LoopbackBus local_bus;
    LoopbackBus remote_bus;
    HubNode local{local_bus, 10, "local", hub_settings(0)};
    HubNode remote{remote_bus, 20, "remote", hub_settings(1)};
    std::shared_ptr<Crossing> crossing = std::make_shared<Crossing>();
};

TEST(Bridge, EachHubHasARouteToTheOthersDomain) {
    TwoSides sides;
    bridge_hubs(sides.local.hub, sides.remote.hub, sides.crossing);
    EXPECT_TRUE(sides.local.hub.has_local_route(1));
    EXPECT_FALSE(sides.local.hub.has_local_route(0));
    EXPECT_TRUE(sides.remote.hub.has_local_route(0));
    EXPECT_FALSE(sides.remote.hub.has_local_route(1));
}

TEST(Bridge, ARouteIsMadeToEveryDeviceAndClientOfTheOtherSide) {
    TwoSides sides;
    sides.local.join();
    sides.remote.join();
    proto::bus::TopicsAndRoles content;
    content.modules = {{31, "client", {}}};
    RawNode device(sides.local_bus, 30);
    device.join();
    device.announce("device", content);
    wait_until([&] { return sides.local.hub.discovered_devices().contains(30); },
               "the device is known");
    auto const [local_seen, remote_seen] =
        sync_device_routes(sides.local.hub, sides.remote.hub, {}, {}, sides.crossing);
    EXPECT_THAT(local_seen, ElementsAre(10, 30, 31));
    EXPECT_THAT(remote_seen, ElementsAre(20));
    for (std::uint32_t const address : {10U, 30U, 31U}) {
        EXPECT_TRUE(sides.remote.hub.has_local_route(address)) << address;
        EXPECT_FALSE(sides.local.hub.has_local_route(address)) << address;
    }
    EXPECT_TRUE(sides.local.hub.has_local_route(20));
    EXPECT_FALSE(sides.remote.hub.has_local_route(20));
}

TEST(Bridge, AddressesThatWereSeenBeforeAreReturnedAgain) {
    TwoSides sides;
    auto const [local_seen, remote_seen] =
        sync_device_routes(sides.local.hub, sides.remote.hub, {7, 10}, {8}, sides.crossing);
    EXPECT_THAT(local_seen, ElementsAre(7, 10));
    EXPECT_THAT(remote_seen, ElementsAre(8, 20));
}

TEST(Bridge, AnAddressThatLivesOnOneSideGetsNoRouteToTheOther) {
    TwoSides sides;
    sides.crossing->add_route(sides.local.hub, sides.remote.hub, 30);
    sides.crossing->add_route(sides.remote.hub, sides.local.hub, 30);
    EXPECT_TRUE(sides.remote.hub.has_local_route(30));
    EXPECT_FALSE(sides.local.hub.has_local_route(30));
}

TEST(Bridge, NoRouteIsMadeToAHubsOwnAddressesNorToNobody) {
    TwoSides sides;
    for (std::uint32_t const address : {20U, 1U, 0xFFFFU, 0xFFFFFFFFU}) {
        sides.crossing->add_route(sides.local.hub, sides.remote.hub, address);
        EXPECT_FALSE(sides.remote.hub.has_local_route(address)) << address;
    }
}

TEST(Bridge, MakesALimitedNumberOfRoutes) {
    TwoSides sides;
    for (std::uint32_t i = 1; i <= Crossing::K_MAX_ROUTES + 1; ++i) {
        sides.crossing->add_route(sides.local.hub, sides.remote.hub, 1000 + i);
    }
    EXPECT_TRUE(sides.remote.hub.has_local_route(1000 + Crossing::K_MAX_ROUTES));
    EXPECT_FALSE(sides.remote.hub.has_local_route(1001 + Crossing::K_MAX_ROUTES));
}

TEST(Bridge, WhatCrossesBearsItsSendersAddress) {
    TwoSides sides;
    sides.local.join();
    sides.remote.join();
    bridge_hubs(sides.local.hub, sides.remote.hub, sides.crossing);
    sides.crossing->add_route(sides.local.hub, sides.remote.hub, 30);
    RawNode target(sides.local_bus, 30);
    target.join();
    RawNode sender(sides.remote_bus, 40);
    sender.join();
    sender.send(MessageType::EVENT, 30, {1}, "a", 5);
    ASSERT_TRUE(target.wait_for(MessageType::EVENT, 1, "the event crosses"));
    WireFrame const event = target.heard(MessageType::EVENT).at(0);
    EXPECT_EQ(event.source, 10U);
    EXPECT_EQ(event.origin, Origin(0, 40));
    EXPECT_EQ(event.msg_id, 5U);
    EXPECT_EQ(event.topic_id, topic_hash("a"));
    EXPECT_TRUE(sides.local.hub.has_local_route(40));
}

TEST(Bridge, NothingCrossesOnceItIsClosed) {
    TwoSides sides;
    sides.local.join();
    sides.remote.join();
    bridge_hubs(sides.local.hub, sides.remote.hub, sides.crossing);
    Collected<Bytes> heard;
    sides.remote.hub.subscribe_pattern(
        "a", [&](auto const&, Bytes const& payload, auto const&) { heard.add(payload); }, "");
    RawNode sender(sides.local_bus, 30);
    sender.join();
    sender.send(MessageType::EVENT, 1, {1}, "a", 5);
    heard.wait_for(1, "the first event crosses");
    sides.crossing->close();
    sender.send(MessageType::EVENT, 1, {2}, "a", 6);
    // The local hub takes its frames in order: an answer to the next one says that this is done.
    sides.local.hub.serve(
        "marker", [](Bytes const&) { return Bytes(); }, "");
    sender.send(MessageType::REQUEST, 10, {}, "marker", 7);
    sender.wait_for(MessageType::RESPONSE, 1, "the marker is answered");
    EXPECT_THAT(heard.all(), ElementsAre(Bytes{1}));
    sides.crossing = std::make_shared<Crossing>();
}

} // namespace
} // namespace tessaron::bus
