#include "bus/RoutingTable.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace tessaron::bus {
namespace {

TEST(RoutingTable, KnowsNothingAtFirst) {
    RoutingTable routes;
    EXPECT_FALSE(routes.find(1));
    EXPECT_FALSE(routes.has(1));
    EXPECT_TRUE(routes.snapshot().empty());
}

TEST(RoutingTable, LearnedRouteNeverReplacesAConfiguredOne) {
    RoutingTable routes;
    std::vector<std::uint32_t> forwarded;
    routes.add(
        7, 70, [&](std::uint32_t via, WireFrame const&) { forwarded.push_back(via); }, false);
    EXPECT_FALSE(routes.add_if_absent(7, 7, {}, true));

    auto const route = routes.find(7);
    ASSERT_TRUE(route && route->forward);
    EXPECT_EQ(route->via, 70U);
    EXPECT_FALSE(route->direct);
    route->forward(route->via, {});
    EXPECT_EQ(forwarded, std::vector<std::uint32_t>{70});
}

TEST(RoutingTable, AConfiguredRouteReplacesALearnedOne) {
    RoutingTable routes;
    EXPECT_TRUE(routes.add_if_absent(7, 7, {}, true));
    routes.add(
        7, 70, [](std::uint32_t, WireFrame const&) {}, false);
    auto const route = routes.find(7);
    ASSERT_TRUE(route);
    EXPECT_EQ(route->via, 70U);
    EXPECT_TRUE(route->forward);
}

TEST(RoutingTable, ARouteOnThisBusHasNoForwarder) {
    RoutingTable routes;
    routes.add_if_absent(7, 7, {}, true);
    auto const route = routes.find(7);
    ASSERT_TRUE(route);
    EXPECT_FALSE(route->forward);
    EXPECT_TRUE(route->direct);
    EXPECT_TRUE(routes.has(7));
    EXPECT_FALSE(routes.has(8));
}

TEST(RoutingTable, AForwarderMayUseTheTable) {
    RoutingTable routes;
    bool known = false;
    routes.add(
        1, 2, [&](std::uint32_t via, WireFrame const&) { known = routes.has(via - 1); }, true);
    routes.find(1)->forward(2, {});
    EXPECT_TRUE(known);
}

TEST(RoutingTable, WhatAReplacedForwarderHeldMayUseTheTableAsItDies) {
    RoutingTable routes;
    bool known = false;
    std::shared_ptr<void> held(nullptr, [&](void*) { known = routes.has(1); });
    routes.add(
        1, 1, [held](std::uint32_t, WireFrame const&) {}, true);
    held.reset();
    EXPECT_FALSE(known);
    routes.add(1, 1, {}, true);
    EXPECT_TRUE(known);
}

TEST(RoutingTable, FullTakesNoMoreDestinationsAndStillReplacesRoutes) {
    RoutingTable routes;
    for (std::uint32_t i = 0; i < RoutingTable::K_MAX_ROUTES; ++i) {
        ASSERT_TRUE(routes.add_if_absent(i, i, {}, true));
    }
    auto const beyond = static_cast<std::uint32_t>(RoutingTable::K_MAX_ROUTES);
    EXPECT_FALSE(routes.add_if_absent(beyond, 1, {}, true));
    routes.add(beyond, 1, {}, true);
    EXPECT_FALSE(routes.has(beyond));
    routes.add(5, 50, {}, true);
    EXPECT_EQ(routes.find(5)->via, 50U);
    EXPECT_EQ(routes.snapshot().size(), RoutingTable::K_MAX_ROUTES);
}

TEST(RoutingTable, MayBeUsedFromManyThreads) {
    RoutingTable routes;
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < 4; ++i) {
        threads.emplace_back([&routes, i] {
            for (std::uint32_t address = 0; address < 200; ++address) {
                routes.add_if_absent(address, i, {}, true);
                routes.add(1000 + address, i, {}, false);
                routes.find(address);
                routes.snapshot();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(routes.snapshot().size(), 400U);
}

} // namespace
} // namespace tessaron::bus
