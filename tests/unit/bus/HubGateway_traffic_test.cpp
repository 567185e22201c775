#include "tests/unit/bus/GatewayTest.hpp"

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

// How much a gateway adds to the traffic of the bus, and its end in the middle of it.

namespace tessaron {
namespace {

using namespace test;
using bus::WireFrame;

/// Between two frames of one sender: without it, queues are all that is tested.
constexpr std::chrono::microseconds K_PACE{100};

std::size_t count(std::vector<WireFrame> const& frames, std::uint32_t msg_id) {
    return static_cast<std::size_t>(
        std::count_if(frames.begin(), frames.end(),
                      [msg_id](auto const& frame) { return frame.msg_id == msg_id; }));
}

TEST(HubGatewayTraffic, ADirectedFrameIsOneDatagramOnABusOfTwentyNodesAndTwoGateways) {
    Bridged net;
    HubGateway second(net.bus.add_port(), 0, K_LOCAL + 1, 0, 1, "other-gateway", quick_settings());
    std::vector<std::unique_ptr<HubNode>> nodes;
    for (std::uint32_t i = 1; i < 20; ++i) {
        nodes.push_back(std::make_unique<HubNode>(net.bus, K_NODE + i, "node" + std::to_string(i)));
        nodes.back()->join();
    }
    net.wait_until_reachable(K_NODE + 19);
    wait_until([&] { return second.remote_hub().has_local_route(K_NODE + 19); },
               "the second gateway knows all nodes too");
    RawNode listener(net.bus, 400);
    listener.join();
    RawTool tool(net.gateway);
    RawTool other_tool(second, K_TOOL + 1);
    other_tool.node.announce("other tool");
    wait_until([&] { return second.local_hub().has_local_route(K_TOOL + 1); },
               "the second gateway knows its tool");

    EXPECT_TRUE(net.echo(tool.node, {1}, 0x70000001));
    EXPECT_TRUE(net.echo(tool.node, {1}, 0x70000002));
    // What came before the second reply has been heard by then.
    wait_until([&] { return count(listener.heard(MessageType::RESPONSE), 0x70000002) == 1; },
               "the second reply is heard on the bus");
    EXPECT_EQ(count(listener.heard(MessageType::REQUEST), 0x70000001), 1U);
    EXPECT_EQ(count(listener.heard(MessageType::RESPONSE), 0x70000001), 1U);
    EXPECT_EQ(count(tool.node.heard(MessageType::RESPONSE), 0x70000001), 1U);
    EXPECT_EQ(count(other_tool.node.heard(MessageType::RESPONSE), 0x70000001), 0U);
}

TEST(HubGatewayTraffic, AFrameBetweenTwoNodesCrossesNoGateway) {
    Bridged net;
    HubNode asker(net.bus, 206, "asker");
    asker.join();
    net.wait_until_reachable(206);
    net.wait_until_reachable(K_NODE);
    RawTool tool(net.gateway);
    EXPECT_TRUE(net.echo(tool.node, {1}, 0x70000001));
    auto const client = asker.hub.connect(777, {});
    EXPECT_EQ(client->request_to(K_NODE, "echo", {5}, K_LONG), Bytes{5});
    EXPECT_TRUE(net.echo(tool.node, {1}, 0x70000002));
    EXPECT_TRUE(tool.node.heard(MessageType::REQUEST).empty());
    EXPECT_EQ(tool.node.heard(MessageType::RESPONSE).size(), 2U);
}

TEST(HubGatewayTraffic, BroadcastsStayOnTheirSide) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawNode listener(net.bus, 400);
    listener.join();
    RawTool tool(net.gateway);
    tool.node.send(MessageType::EVENT, bus::Hub::BROADCAST_ADDRESS, {1}, "tools", 5);
    net.node.hub.publish_event("nodes", {2});
    EXPECT_TRUE(net.echo(tool.node, {1}, 6));
    listener.wait_for(MessageType::EVENT, 1, "the node's event is heard");
    listener.wait_for(MessageType::RESPONSE, 1, "the reply is heard on the bus");
    for (auto const& event : listener.heard(MessageType::EVENT)) {
        EXPECT_EQ(event.topic_id, topic_hash("nodes"));
    }
    EXPECT_TRUE(tool.node.heard(MessageType::EVENT).empty());
}

TEST(HubGatewayTraffic, MayEndWhileFramesCrossBothWays) {
    LoopbackBus bus;
    HubNode node(bus, K_NODE);
    node.hub.serve(
        "echo", [](Bytes const& request) { return request; }, "");
    node.join();
    for (int round = 0; round < 5; ++round) {
        std::optional<HubGateway> gateway(std::in_place, bus.add_port(), 0U, K_LOCAL,
                                          std::uint16_t{0}, 1U, "app-gateway", quick_settings());
        RawTool tool(*gateway);
        tool.node.announce("tool");
        std::atomic<bool> done{false};
        std::thread from_tool([&] {
            for (std::uint32_t id = 1; !done; ++id) {
                tool.node.send(MessageType::REQUEST, K_NODE, {1}, "echo", id);
                std::this_thread::sleep_for(K_PACE);
            }
        });
        std::thread from_bus([&] {
            while (!done) {
                node.hub.send_envelope(MessageType::EVENT, K_TOOL, {1}, 1);
                std::this_thread::sleep_for(K_PACE);
            }
        });
        tool.node.wait_for(MessageType::RESPONSE, 1, "replies cross");
        tool.node.wait_for(MessageType::EVENT, 1, "events cross");
        gateway.reset();
        done = true;
        from_tool.join();
        from_bus.join();
    }
}

} // namespace
} // namespace tessaron
