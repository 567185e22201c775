#include "bus/CallGate.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using proto::bus::DiscoveryRecord;
using proto::bus::TopicsAndRoles;
using test::Bytes;
using test::bytes_of;
using test::Collected;
using test::hub_settings;
using test::HubNode;
using test::K_LONG;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::RawNode;
using test::topic_hash;
using testing::ElementsAre;
using testing::IsEmpty;

struct HubRoutes : testing::Test {
    HubRoutes() {
        peer.join();
        node.join();
        node.hub.subscribe_pattern(
            "topic",
            [this](std::string const&, Bytes const& payload, Origin const& origin) {
                heard.add({payload, origin});
            },
            "");
    }

    static WireFrame event(std::uint32_t dest, std::uint32_t msg_id = 1) {
        WireFrame frame;
        frame.type = MessageType::EVENT;
        frame.dest = dest;
        frame.msg_id = msg_id;
        frame.topic_id = topic_hash("topic");
        return frame;
    }
    RouteForward into(Collected<std::pair<std::uint32_t, WireFrame>>& forwarded) {
        return [&forwarded](std::uint32_t via, WireFrame const& frame) {
            forwarded.add({via, frame});
        };
    }
    /// Returns when the hub has dealt with all that was sent before.
    void wait_for_marker() {
        auto const before = heard.size();
        peer.send(event(200, ++marker), bytes_of("marker"));
        heard.wait_for(before + 1, "the marker has come");
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode node{bus, 200};
    Collected<std::pair<Bytes, Origin>> heard;
    std::uint32_t marker = 1000;
};

TEST_F(HubRoutes, AFrameForSomebodyElseTakesItsRouteWithALowerTtl) {
    Collected<std::pair<std::uint32_t, WireFrame>> forwarded;
    node.hub.add_route(700, 709, into(forwarded), true);
    WireFrame frame = event(705, 77);
    frame.frag_index = 3;
    frame.frag_flags = 7;
    frame.origin = Origin(1, 2);
    frame.uncompressed_size = 99;
    peer.send(frame, bytes_of("passing"));
    ASSERT_TRUE(forwarded.wait_for(1, "the frame was forwarded"));
    auto const [via, passed] = forwarded.all().front();
    EXPECT_EQ(via, 705u);
    frame.source = 9;
    frame.ttl = 7;
    frame.data = bytes_of("passing");
    EXPECT_EQ(passed, frame);
}

TEST_F(HubRoutes, TtlZeroGoesNoFurther) {
    Collected<std::pair<std::uint32_t, WireFrame>> forwarded;
    node.hub.add_route(700, 700, into(forwarded), true);
    for (std::uint8_t const ttl : Bytes{0, 1}) {
        WireFrame frame = event(700, ttl);
        frame.ttl = ttl;
        peer.send(frame, {});
    }
    wait_for_marker();
    ASSERT_EQ(forwarded.size(), 1u);
    EXPECT_EQ(forwarded.all().front().second.msg_id, 1u);
    EXPECT_EQ(forwarded.all().front().second.ttl, 0);
}

TEST_F(HubRoutes, TtlEightAllowsEightHops) {
    constexpr std::size_t K_HUBS = 10;
    // A row of hubs, each on a bus of its own, with a repeater there: what a hub sends out comes
    // back to it as another node's, and goes on to the next hub.
    std::vector<std::unique_ptr<LoopbackBus>> buses;
    std::vector<std::unique_ptr<RawNode>> repeaters;
    std::vector<std::unique_ptr<HubNode>> hubs;
    for (std::uint32_t i = 0; i < K_HUBS; ++i) {
        buses.push_back(std::make_unique<LoopbackBus>());
        repeaters.push_back(std::make_unique<RawNode>(*buses.back(), 8));
        hubs.push_back(std::make_unique<HubNode>(*buses.back(), 300 + i));
        hubs.back()->join();
    }
    std::atomic<int> hops{0};
    for (std::size_t i = 0; i < K_HUBS; ++i) {
        RawNode& repeater = *repeaters[i];
        repeater.on_frame = [&repeater, &hops](WireFrame const& frame) {
            if (frame.dest == 905) {
                ++hops;
                repeater.send(frame, frame.data);
            }
        };
        repeater.join();
        if (i + 1 < K_HUBS) {
            Hub& next = hubs[i + 1]->hub;
            hubs[i]->hub.add_route(
                900, 909,
                [&next](std::uint32_t, WireFrame const& frame) { next.inject_frame(frame); }, true);
        }
    }
    std::size_t const before = buses[9]->sent_count();
    repeaters[0]->send(event(905), bytes_of("far"));
    test::wait_until([&] { return hops == 8; }, "eight hubs have passed it on");
    // The hub behind the eighth hears it before the marker, and lets it end there.
    Collected<Bytes> markers;
    hubs[8]->hub.subscribe_pattern(
        "topic",
        [markers](std::string const&, Bytes const& payload, Origin const&) {
            markers.add(payload);
        },
        "");
    repeaters[8]->send(event(308), bytes_of("marker"));
    ASSERT_TRUE(markers.wait_for(1, "the marker has come"));
    EXPECT_EQ(buses[9]->sent_count(), before);
    EXPECT_EQ(hops, 8);
    repeaters.clear();
}

TEST_F(HubRoutes, AFrameWithoutARouteIsDropped) {
    peer.send(event(777), {});
    wait_for_marker();
    bus.wait_until_delivered();
    std::size_t const before = bus.sent_count();
    peer.send(event(777), {});
    wait_for_marker();
    EXPECT_EQ(bus.sent_count(), before + 2); // The frame and the marker.
}

TEST_F(HubRoutes, ADiscoveryRequestForSomebodyElseIsNotForwarded) {
    Collected<std::pair<std::uint32_t, WireFrame>> forwarded;
    node.hub.add_route(700, 700, into(forwarded), true);
    WireFrame question;
    question.type = MessageType::DISCOVERY_REQUEST;
    question.dest = 700;
    peer.send(question, {});
    wait_for_marker();
    EXPECT_EQ(forwarded.size(), 0u);
}

TEST_F(HubRoutes, RoutesAreLearnedFromDirectNeighboursOnly) {
    TopicsAndRoles content;
    content.records = {
        DiscoveryRecord{"", 5, 1, "own domain"}, DiscoveryRecord{"", 6, 2, "forwarded"},
        DiscoveryRecord{"", 0, 1, "own domain"}, DiscoveryRecord{"", 200, 1, "own domain"}};
    peer.announce("peer", content);
    wait_for_marker();
    std::vector<std::uint32_t> routes;
    WireFrame question;
    question.type = MessageType::DISCOVERY_REQUEST;
    question.dest = 200;
    peer.send(question, {});
    ASSERT_TRUE(test::wait_until(
        [&] {
            auto const responses = peer.heard(MessageType::DISCOVERY_RESPONSE);
            return !responses.empty() && responses.back().dest == 9;
        },
        "the response has come"));
    auto const response = peer.heard(MessageType::DISCOVERY_RESPONSE).back();
    for (auto const& record :
         proto::bus::decode_topics_and_roles_after_identity(response.data).records) {
        if (record.note == "forwarded") {
            routes.push_back(record.address);
        }
    }
    EXPECT_THAT(routes, ElementsAre(5u));
    EXPECT_FALSE(node.hub.has_local_route(5)); // It has no forwarder.
}

TEST_F(HubRoutes, ALearnedRouteNeverReplacesAConfiguredOne) {
    Collected<std::pair<std::uint32_t, WireFrame>> forwarded;
    node.hub.add_route(5, 5, into(forwarded), true);
    TopicsAndRoles content;
    content.records = {DiscoveryRecord{"", 5, 1, "own domain"}};
    peer.announce("peer", content);
    peer.send(event(5), {});
    wait_for_marker();
    EXPECT_EQ(forwarded.size(), 1u);
    EXPECT_TRUE(node.hub.has_local_route(5));
    EXPECT_FALSE(node.hub.has_local_route(6));
}

TEST_F(HubRoutes, AnInjectedFrameForTheHubIsDeliveredAndStaysOffItsBus) {
    test::settle(peer, node.hub);
    std::size_t const before = bus.sent_count();
    for (std::uint32_t const dest : {200u, 0u}) { // Its address and its domain.
        WireFrame frame = event(dest, dest + 5);
        frame.source = 4;
        frame.data = bytes_of("injected");
        node.hub.inject_frame(frame);
    }
    EXPECT_THAT(heard.all(), ElementsAre(std::pair(bytes_of("injected"), Origin(0, 4)),
                                         std::pair(bytes_of("injected"), Origin(0, 4))));
    EXPECT_EQ(bus.sent_count(), before);
}

TEST_F(HubRoutes, AnInjectedFrameForAClientIsDeliveredToIt) {
    auto const client = node.hub.connect(500, proto::bus::make_identity("c", "hub-test", 1));
    WireFrame frame = event(500);
    frame.source = 4;
    frame.origin = Origin(1, 77);
    frame.data = bytes_of("injected");
    node.hub.inject_frame(frame);
    auto const received = client->next_frame(K_LONG);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->source, 77u);
    EXPECT_EQ(received->return_route, 1u);
    EXPECT_EQ(heard.size(), 0u);
}

TEST_F(HubRoutes, AnInjectedFrameForOthersGoesOutAsItCame) {
    WireFrame frame = event(9, 55);
    frame.source = 4;
    frame.ttl = 3;
    frame.data = bytes_of("crossing");
    node.hub.inject_frame(frame);
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 1, "the frame has come"));
    frame.source = 200;
    frame.origin = Origin(0, 4);
    EXPECT_EQ(peer.heard(MessageType::EVENT).front(), frame);
}

TEST_F(HubRoutes, InjectedFragmentsAreNotPutTogetherOnTheirWay) {
    WireFrame frame = event(9, 55);
    frame.frag_flags = K_FRAG_FLAG_FRAGMENT;
    frame.frag_index = 2;
    frame.origin = Origin(3, 4);
    frame.data = Bytes(Hub::K_MAX_DATA_FIELD_CHUNK_SIZE);
    node.hub.set_compression_enabled(true);
    node.hub.inject_frame(frame);
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 1, "the frame has come"));
    frame.source = 200;
    EXPECT_EQ(peer.heard(MessageType::EVENT).front(), frame);
}

TEST_F(HubRoutes, AReplyToSomebodyBehindTheGatewayTakesTheRoute) {
    Collected<std::pair<std::uint32_t, WireFrame>> forwarded;
    node.hub.add_route(700, 700, into(forwarded), false);
    node.hub.serve(
        "echo", [](Bytes const& payload) { return payload; }, "");
    WireFrame request;
    request.type = MessageType::REQUEST;
    request.dest = 200;
    request.msg_id = 77;
    request.topic_id = topic_hash("echo");
    request.source = 700;
    request.data = bytes_of("hello");
    node.hub.inject_frame(request);
    ASSERT_TRUE(forwarded.wait_for(1, "the reply was forwarded"));
    auto const reply = forwarded.all().front().second;
    EXPECT_EQ(reply.type, MessageType::RESPONSE);
    EXPECT_EQ(reply.msg_id, 77u);
    EXPECT_EQ(reply.dest, 700u);
    EXPECT_EQ(reply.data, bytes_of("hello"));
    EXPECT_EQ(reply.ttl, 7);
}

/// Two hubs with routes into each other, as a gateway has them: one on a bus with twenty nodes, one
/// on a bus with a tool.
struct HubBridge : testing::Test {
    HubBridge() {
        tool.join();
        asker.join();
        near.join();
        far.join();
        near.hub.add_route(1, 1, to(far), true);
        near.hub.add_route(0x1234, 0x1234, to(far), false);
        far.hub.add_route(0, 0, to(near), true);
        far.hub.add_route(300, 319, to(near), false);
        for (std::uint32_t i = 0; i < 20; ++i) {
            nodes.push_back(std::make_unique<HubNode>(bus, 300 + i, "n" + std::to_string(i)));
            nodes.back()->join();
            nodes.back()->hub.serve(
                "echo", [](Bytes const& payload) { return payload; }, "");
        }
    }
    /// Neither hub is called by the other any more when they go.
    ~HubBridge() override { gate.close(); }

    RouteForward to(HubNode& node) {
        return [this, &node](std::uint32_t, WireFrame const& frame) {
            CallGate::Pass const pass(gate);
            if (pass) {
                node.hub.inject_frame(frame);
            }
        };
    }
    /// Returns when all nodes know all others, so that whatever can be learned has been.
    void let_all_discover() {
        for (auto const& node : nodes) {
            node->hub.discover();
        }
        for (auto const& node : nodes) {
            test::wait_until([&] { return node->hub.discovered_devices().size() == 21; },
                             "all are known");
        }
        // The answers, most of which tell nothing new, come behind the questions.
        constexpr std::uint32_t marker = 0x70000000;
        asker.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, bytes_of("marker"), "marker",
                   marker);
        for (auto const& node : nodes) {
            test::wait_until([&] { return test::has_come_to(node->hub, marker); },
                             "the node has answered all");
        }
        test::wait_until([&] { return test::has_come_to(near.hub, marker); },
                         "the bridge has answered all");
    }

    CallGate gate;
    LoopbackBus bus;
    LoopbackBus tool_bus;
    RawNode tool{tool_bus, 0x1234};
    RawNode asker{bus, 99};
    HubNode near{bus, 1100, "near"};
    HubNode far{tool_bus, 50000, "far", hub_settings(1)};
    std::vector<std::unique_ptr<HubNode>> nodes;
};

TEST_F(HubBridge, AToolGetsItsReplyAndNoFrameIsSentAgainByWhoeverHeardIt) {
    let_all_discover();
    bus.wait_until_delivered();
    std::size_t const before = bus.sent_count();
    tool.send(MessageType::REQUEST, 310, bytes_of("hello"), "echo", 77);
    ASSERT_TRUE(tool.wait_for(MessageType::RESPONSE, 1, "the reply has come"));
    auto const reply = tool.heard(MessageType::RESPONSE).front();
    EXPECT_EQ(reply.data, bytes_of("hello"));
    EXPECT_EQ(reply.msg_id, 77u);
    EXPECT_EQ(reply.dest, 0x1234u);
    nodes.front()->hub.publish("marker", {}); // Whatever any node had to add comes before its echo.
    bus.wait_until_delivered();
    EXPECT_EQ(bus.sent_count(), before + 3); // The request, the reply, the marker.
}

TEST_F(HubBridge, ADirectedFrameOnTheBusIsOneDatagram) {
    let_all_discover();
    bus.wait_until_delivered();
    std::size_t const before = bus.sent_count();
    nodes[3]->hub.request_to_and_collect(305, "nothing served", {}, std::chrono::milliseconds(50));
    nodes[3]->hub.request_to_and_collect(1, "nothing served", {}, std::chrono::milliseconds(50));
    bus.wait_until_delivered();
    EXPECT_EQ(bus.sent_count(), before + 2);
}

} // namespace
} // namespace tessaron::bus
