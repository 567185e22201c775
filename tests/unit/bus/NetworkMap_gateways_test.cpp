#include "GatewayTest.hpp"
#include "NetworkMapTest.hpp"
#include "bus/bridge.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace tessaron::bus {
namespace {

using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;
using test::addresses;
using test::ask;
using test::Bridged;
using test::HubNode;
using test::K_COLLECT;
using test::K_LOCAL;
using test::K_LONG;
using test::K_NODE;
using test::LoopbackBus;
using test::TcpPort;
using test::wait_until_known;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint32_t K_REMOTE = HubGateway::K_REMOTE_ADDRESS;

/// A tool that is a hub, on the far side of a gateway.
struct HubTool {
    HubTool(HubGateway& gateway, std::uint32_t address, std::string const& name)
        : port(gateway.tcp_port()), node(port, address, name) {
        node.join();
        wait_until_known(gateway.remote_hub(), address);
    }

    TcpPort port;
    HubNode node;
};

TEST(NetworkMap, NamesEveryHubAndModuleOnBothSidesOfAGateway) {
    Bridged net;
    HubTool tool(net.gateway, 300, "tool");
    auto const module = tool.node.hub.connect_resolved(
        600, proto::bus::make_identity("on the far side", "b", 1), 0);
    auto const near =
        net.node.hub.connect_resolved(601, proto::bus::make_identity("on the bus", "b", 1), 0);
    wait_until_known(net.node.hub, K_LOCAL);
    test::wait_until(
        [&] {
            return !net.gateway.remote_hub().discovered_devices().at(300).hosted_modules.empty();
        },
        "the gateway knows the module");

    auto const map = net.node.hub.discover_network(2, K_COLLECT);
    EXPECT_EQ(map.address, 0u);
    EXPECT_THAT(addresses(map), ElementsAre(K_NODE, K_LOCAL));
    EXPECT_THAT(map.hubs[0].modules, ElementsAre(ModuleSummary{601, "on the bus", {}}));
    ASSERT_THAT(map.children, SizeIs(1));
    NetworkDomain const& far = map.children[0];
    EXPECT_EQ(far.address, HubGateway::K_REMOTE_DOMAIN);
    EXPECT_THAT(addresses(far), ElementsAre(300, K_REMOTE));
    EXPECT_EQ(far.hubs[0].name, "tool");
    EXPECT_THAT(far.hubs[0].modules, ElementsAre(ModuleSummary{600, "on the far side", {}}));
    EXPECT_THAT(far.children, IsEmpty());
}

TEST(NetworkMap, IsAskedForFromTheFarSideAsWell) {
    Bridged net;
    HubTool tool(net.gateway, 300, "tool");
    wait_until_known(net.gateway.local_hub(), K_NODE);
    wait_until_known(tool.node.hub, K_REMOTE);
    auto const map = tool.node.hub.discover_network(2, K_COLLECT);
    EXPECT_EQ(map.address, HubGateway::K_REMOTE_DOMAIN);
    EXPECT_THAT(addresses(map), ElementsAre(300, K_REMOTE));
    ASSERT_THAT(map.children, SizeIs(1));
    EXPECT_EQ(map.children[0].address, HubGateway::K_LOCAL_DOMAIN);
    EXPECT_THAT(addresses(map.children[0]), ElementsAre(K_NODE, K_LOCAL));
    EXPECT_THAT(map.children[0].children, IsEmpty());
}

TEST(NetworkMap, OneNodesAnswerHoldsBothSides) {
    Bridged net;
    HubTool tool(net.gateway, 300, "tool");
    HubNode asker(net.bus, 400, "asker");
    asker.join();
    wait_until_known(net.node.hub, K_LOCAL);
    wait_until_known(net.node.hub, 400);
    auto const map = ask(asker.hub, K_NODE, {2, {}});
    ASSERT_TRUE(map);
    EXPECT_THAT(addresses(*map), ElementsAre(K_NODE, 400, K_LOCAL));
    ASSERT_THAT(map->children, SizeIs(1));
    EXPECT_THAT(addresses(map->children[0]), ElementsAre(300, K_REMOTE));
}

TEST(NetworkMap, GoesNoFurtherThanItsHops) {
    Bridged net;
    wait_until_known(net.node.hub, K_LOCAL);
    // One hop asks the gateway on this bus, the second its far side.
    EXPECT_THAT(net.node.hub.discover_network(1, K_COLLECT).children, IsEmpty());
    EXPECT_THAT(net.node.hub.discover_network(2, K_COLLECT).children, SizeIs(1));
}

TEST(NetworkMap, ReachesWhatLiesBehindASecondGateway) {
    Bridged net;
    HubGateway second(net.bus.add_port(), HubGateway::K_LOCAL_DOMAIN, K_LOCAL + 1, 0,
                      HubGateway::K_REMOTE_DOMAIN, "second-gateway", test::quick_settings());
    HubTool tool(net.gateway, 300, "tool");
    HubTool other(second, 301, "other");
    wait_until_known(net.gateway.local_hub(), K_LOCAL + 1);
    wait_until_known(net.gateway.local_hub(), K_NODE);
    auto const map = tool.node.hub.discover_network(4, K_COLLECT);
    ASSERT_THAT(map.children, SizeIs(1));
    EXPECT_THAT(addresses(map.children[0]), ElementsAre(K_NODE, K_LOCAL, K_LOCAL + 1));
    ASSERT_THAT(map.children[0].children, SizeIs(1));
    EXPECT_THAT(addresses(map.children[0].children[0]), ElementsAre(301, K_REMOTE));
}

TEST(NetworkMap, ThroughAGatewayThatIsGoneEndsAtIt) {
    Bridged net;
    wait_until_known(net.node.hub, K_LOCAL);
    auto const crossing = std::make_shared<Crossing>();
    HubNode far(net.bus, 700, "far");
    auto const source = crossing->map_of(far.hub);
    EXPECT_THAT(source(1, {}, K_LONG).hubs, SizeIs(1));
    crossing->close();
    EXPECT_THAT(source(1, {}, K_LONG).hubs, IsEmpty());
}

/// Two buses with two ways between them.
struct Ring : testing::Test {
    void SetUp() override {
        for (HubNode* const node : {&a1, &a2, &b1, &b2}) {
            node->hub.add_role(Hub::K_GATEWAY_ROLE);
            node->join();
        }
        bridge_hubs(a1.hub, b1.hub, first);
        bridge_hubs(a2.hub, b2.hub, second);
        on_a.join();
        on_b.join();
        for (auto const* const node : {&a1, &a2, &on_a}) {
            for (std::uint32_t const address : {10u, 11u, 12u}) {
                wait_until_known(node->hub, address);
            }
        }
        for (auto const* const node : {&b1, &b2, &on_b}) {
            for (std::uint32_t const address : {20u, 21u, 22u}) {
                wait_until_known(node->hub, address);
            }
        }
    }
    ~Ring() override {
        first->close();
        second->close();
    }

    LoopbackBus a;
    LoopbackBus b;
    HubNode a1{a, 10, "a1", test::hub_settings(5)};
    HubNode a2{a, 11, "a2", test::hub_settings(5)};
    HubNode on_a{a, 12, "on a"};
    HubNode b1{b, 20, "b1", test::hub_settings(6)};
    HubNode b2{b, 21, "b2", test::hub_settings(6)};
    HubNode on_b{b, 22, "on b"};
    std::shared_ptr<Crossing> const first = std::make_shared<Crossing>();
    std::shared_ptr<Crossing> const second = std::make_shared<Crossing>();
};

TEST_F(Ring, ALoopIsCutByWhatIsVisited) {
    auto const map = on_a.hub.discover_network(8, K_COLLECT);
    EXPECT_EQ(map.address, 5u);
    EXPECT_THAT(addresses(map), ElementsAre(10, 11, 12));
    ASSERT_THAT(map.children, SizeIs(1));
    EXPECT_EQ(map.children[0].address, 6u);
    EXPECT_THAT(addresses(map.children[0]), ElementsAre(20, 21, 22));
    EXPECT_THAT(map.children[0].children, IsEmpty());
}

TEST_F(Ring, QuestionsFromBothSidesAtOnceHoldNobodyUpForLong) {
    std::vector<std::thread> askers;
    std::vector<NetworkDomain> maps(8);
    for (std::size_t i = 0; i < maps.size(); ++i) {
        askers.emplace_back(
            [&, i] { maps[i] = (i % 2 == 0 ? on_a : on_b).hub.discover_network(8, K_COLLECT); });
    }
    for (std::thread& asker : askers) {
        asker.join();
    }
    // Gateways that wait for each other give up one after the other: some may come too late.
    for (NetworkDomain const& map : maps) {
        EXPECT_THAT(map.hubs, SizeIs(3));
    }
    test::wait_until(
        [&] {
            auto const map = on_a.hub.discover_network(8, K_COLLECT);
            return map.children.size() == 1 && map.children[0].hubs.size() == 3;
        },
        "everything is found when they are done");
}

} // namespace
} // namespace tessaron::bus
