#include "tests/unit/bus/GatewayTest.hpp"

#include <map>

// What a tool on the TCP side and the nodes on the bus have of each other.

namespace tessaron {
namespace {

using namespace test;
using bus::WireFrame;

TEST(HubGateway, AToolFindsTheNodesOfTheBus) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawTool tool(net.gateway);
    tool.node.send(MessageType::DISCOVERY_REQUEST, bus::Hub::BROADCAST_ADDRESS, {}, "", 1);
    ASSERT_TRUE(tool.node.wait_for(MessageType::DISCOVERY_RESPONSE, 1, "the gateway answers"));
    auto const answer = tool.node.heard(MessageType::DISCOVERY_RESPONSE).at(0);
    EXPECT_EQ(answer.source, 50000U);
    std::map<std::uint32_t, std::string> records;
    for (auto const& record :
         proto::bus::decode_topics_and_roles_after_identity(answer.data).records) {
        records[record.address] = record.note + " " + std::to_string(record.hops);
    }
    EXPECT_EQ(records[1], "own domain 1");
    EXPECT_EQ(records[K_NODE], "forwarded 2");
    EXPECT_EQ(records[K_LOCAL], "forwarded 2");
}

TEST(HubGateway, AToolAsksANodeAndGetsTheReplyWithoutHavingAnnouncedItself) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawTool tool(net.gateway);
    EXPECT_TRUE(net.echo(tool.node, {1, 2, 3}, 77));
    auto const reply = tool.node.heard(MessageType::RESPONSE).at(0);
    EXPECT_EQ(reply.dest, K_TOOL);
    EXPECT_EQ(reply.msg_id, 77U);
}

TEST(HubGateway, AToolReachesTheClientsThatANodeHosts) {
    Bridged net;
    HubNode host(net.bus, 206, "host");
    auto const client = host.hub.connect(777, proto::bus::make_identity("service", "app", 1));
    client->serve(
        "name", [](Bytes const&) { return bytes_of("service"); }, "");
    host.join();
    net.wait_until_reachable(777);
    RawTool tool(net.gateway);
    tool.node.send(MessageType::REQUEST, 777, {}, "name", 5);
    ASSERT_TRUE(tool.node.wait_for(MessageType::RESPONSE, 1, "the client answers"));
    EXPECT_EQ(tool.node.heard(MessageType::RESPONSE).at(0).data, bytes_of("service"));
}

TEST(HubGateway, ANodeThatJoinsLaterIsReachable) {
    Bridged net;
    RawTool tool(net.gateway);
    HubNode late(net.bus, 206, "late");
    late.hub.serve(
        "name", [](Bytes const&) { return bytes_of("late"); }, "");
    EXPECT_FALSE(net.gateway.remote_hub().has_local_route(206));
    late.join();
    net.wait_until_reachable(206);
    tool.node.send(MessageType::REQUEST, 206, {}, "name", 5);
    ASSERT_TRUE(tool.node.wait_for(MessageType::RESPONSE, 1, "the late node answers"));
    EXPECT_EQ(tool.node.heard(MessageType::RESPONSE).at(0).data, bytes_of("late"));
}

TEST(HubGateway, ANodeReachesAToolThatHasAnnouncedItself) {
    Bridged net;
    RawTool tool(net.gateway);
    tool.node.announce("tool");
    net.wait_until_reachable_from_bus(K_TOOL);
    net.node.hub.send_envelope(MessageType::EVENT, K_TOOL, {4, 5}, topic_hash("news"));
    ASSERT_TRUE(tool.node.wait_for(MessageType::EVENT, 1, "the event crosses"));
    auto const event = tool.node.heard(MessageType::EVENT).at(0);
    EXPECT_EQ(event.data, (Bytes{4, 5}));
    EXPECT_EQ(event.topic_id, topic_hash("news"));
    EXPECT_EQ(event.ttl, bus::Hub::DEFAULT_TTL - 1);
    EXPECT_EQ(event.origin, Origin(1, K_NODE));
}

TEST(HubGateway, ANodeAsksAToolAndGetsItsReply) {
    Bridged net;
    TcpPort port(net.gateway.tcp_port());
    RawNode tool(port, K_TOOL);
    tool.on_frame = [&tool](WireFrame const& frame) {
        if (frame.type == MessageType::REQUEST && frame.dest == K_TOOL) {
            tool.send(MessageType::RESPONSE, frame.origin->local_address(), {9}, "", frame.msg_id);
        }
    };
    tool.join();
    tool.announce("tool");
    net.wait_until_reachable_from_bus(K_TOOL);
    auto const client = net.node.hub.connect(777, {});
    EXPECT_EQ(client->request_to(K_TOOL, "ask", {}, K_LONG), Bytes{9});
}

TEST(HubGateway, SharesATransportWithItsProcessesOwnNode) {
    LoopbackBus bus;
    LoopbackBus::Port& port = bus.add_port();
    HubNode node(port, K_NODE);
    node.hub.serve(
        "name", [](Bytes const&) { return bytes_of("own"); }, "");
    node.join();
    HubGateway gateway(port, 0, K_LOCAL, 0, 1, "app-gateway", quick_settings());
    wait_until([&] { return gateway.remote_hub().has_local_route(K_NODE); },
               "the gateway knows the node beside it");
    RawTool tool(gateway);
    tool.node.send(MessageType::REQUEST, K_NODE, {}, "name", 5);
    ASSERT_TRUE(tool.node.wait_for(MessageType::RESPONSE, 1, "the node answers"));
    EXPECT_EQ(tool.node.heard(MessageType::RESPONSE).at(0).data, bytes_of("own"));
}

TEST(HubGateway, AFrameThatIsAddressedToTheOtherDomainReachesItsHub) {
    Bridged net;
    RawTool tool(net.gateway);
    net.gateway.local_hub().serve(
        "side", [](Bytes const&) { return bytes_of("local"); }, "");
    tool.node.send(MessageType::REQUEST, HubGateway::K_LOCAL_DOMAIN, {}, "side", 5);
    ASSERT_TRUE(tool.node.wait_for(MessageType::RESPONSE, 1, "the local hub answers"));
    EXPECT_EQ(tool.node.heard(MessageType::RESPONSE).at(0).data, bytes_of("local"));

    net.gateway.remote_hub().serve(
        "side", [](Bytes const&) { return bytes_of("remote"); }, "");
    RawNode asker(net.bus, 400);
    asker.join();
    asker.send(MessageType::REQUEST, HubGateway::K_REMOTE_DOMAIN, {}, "side", 6);
    ASSERT_TRUE(asker.wait_for(MessageType::RESPONSE, 1, "the remote hub answers"));
    EXPECT_EQ(asker.heard(MessageType::RESPONSE).at(0).data, bytes_of("remote"));
}

TEST(HubGateway, AToolWithAHubOfItsOwnExchangesMessagesOfManyFrames) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    TcpPort port(net.gateway.tcp_port());
    HubNode tool(port, K_TOOL, "tool");
    tool.join();
    auto const client = tool.hub.connect(K_TOOL + 1, {});
    Bytes const random = pattern_bytes(300'000);
    EXPECT_EQ(client->request_to(K_NODE, "echo", random, K_LONG), random);
    Bytes const monotonous(3'000, 7);
    EXPECT_EQ(client->request_to(K_NODE, "echo", monotonous, K_LONG), monotonous);
}

TEST(HubGateway, PayloadsAreCompressedOnTheToolsSideAlone) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawNode listener(net.bus, 400);
    listener.join();
    RawTool tool(net.gateway);
    Bytes const monotonous(3'000, 7);
    tool.node.send(MessageType::REQUEST, K_NODE, monotonous, "echo", 5);
    ASSERT_TRUE(tool.node.wait_for(MessageType::RESPONSE, 1, "the node answers"));
    auto const reply = tool.node.heard(MessageType::RESPONSE).at(0);
    EXPECT_EQ(reply.frag_flags, bus::K_FRAG_FLAG_COMPRESSED);
    EXPECT_EQ(reply.uncompressed_size, 3'000U);
    EXPECT_LT(reply.data.size(), 300U);
    ASSERT_TRUE(listener.wait_for(MessageType::RESPONSE, 1, "the reply is heard on the bus"));
    EXPECT_EQ(listener.heard(MessageType::RESPONSE).at(0).data, monotonous);
}

TEST(HubGateway, AFrameWithoutHopsLeftDoesNotCross) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawNode listener(net.bus, 400);
    listener.join();
    RawTool tool(net.gateway);
    WireFrame frame;
    frame.type = MessageType::REQUEST;
    frame.dest = K_NODE;
    frame.msg_id = 5;
    frame.topic_id = topic_hash("echo");
    frame.ttl = 0;
    tool.node.send(frame, {1});
    EXPECT_TRUE(net.echo(tool.node, {2}, 6));
    listener.wait_for(MessageType::RESPONSE, 1, "the reply is heard on the bus");
    auto const crossed = listener.heard(MessageType::REQUEST);
    ASSERT_EQ(crossed.size(), 1U);
    EXPECT_EQ(crossed[0].msg_id, 6U);
    EXPECT_EQ(crossed[0].ttl, bus::Hub::DEFAULT_TTL - 1);
}

TEST(HubGateway, ItsLocalHubDoesNotAnswerABroadcastForTheNetworkMap) {
    Bridged net;
    static constexpr char K_TOPIC[] = "bus.discover_network";
    net.gateway.local_hub().serve(
        K_TOPIC, [](Bytes const&) { return Bytes{1}; }, "");
    RawNode asker(net.bus, 400);
    asker.join();
    asker.send(MessageType::REQUEST, bus::Hub::BROADCAST_ADDRESS, {}, K_TOPIC, 5);
    asker.send(MessageType::REQUEST, HubGateway::K_LOCAL_DOMAIN, {}, K_TOPIC, 6);
    asker.send(MessageType::REQUEST, K_LOCAL, {}, K_TOPIC, 7);
    // Requests are answered in their order: what came of the first two would be there as well.
    wait_until(
        [&] {
            auto const replies = asker.heard(MessageType::RESPONSE);
            return std::any_of(replies.begin(), replies.end(),
                               [](auto const& reply) { return reply.msg_id == 7; });
        },
        "the request that is addressed to it is answered");
    for (auto const& reply : asker.heard(MessageType::RESPONSE)) {
        EXPECT_TRUE(reply.msg_id == 7 || reply.source != K_LOCAL) << reply.msg_id;
    }
}

TEST(HubGateway, ItsLocalHubStillTellsWhoeverClaimsAnAddress) {
    Bridged net;
    RawNode asker(net.bus, 400);
    asker.join();
    asker.send(MessageType::DISCOVERY_REQUEST, bus::Hub::BROADCAST_ADDRESS, {}, "", 5);
    wait_until(
        [&] {
            auto const answers = asker.heard(MessageType::DISCOVERY_RESPONSE);
            return std::any_of(answers.begin(), answers.end(),
                               [](auto const& answer) { return answer.source == K_LOCAL; });
        },
        "the local hub answers");
}

TEST(HubGateway, AToolThatCallsItselfLikeANodeTakesNoneOfItsFrames) {
    Bridged net;
    net.wait_until_reachable(K_NODE);
    RawTool twin(net.gateway, K_NODE);
    twin.node.announce("twin");
    RawTool tool(net.gateway);
    tool.node.announce("tool");
    net.wait_until_reachable_from_bus(K_TOOL);
    EXPECT_FALSE(net.gateway.local_hub().has_local_route(K_NODE));
}

} // namespace
} // namespace tessaron
