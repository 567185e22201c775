#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using test::Bytes;
using test::bytes_of;
using test::Collected;
using test::HubNode;
using test::K_LONG;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::RawNode;
using test::topic_hash;
using testing::ElementsAre;

using std::chrono::milliseconds;

proto::bus::NodeIdentity identity(std::string const& name = "client") {
    return proto::bus::make_identity(name, "hub-test", 1);
}

struct HubLocalClients : testing::Test {
    HubLocalClients() {
        peer.join();
        node.join();
        client = node.hub.connect(500, identity());
    }

    static void hear(LocalClient& listening, std::string const& pattern, Collected<Bytes>& heard) {
        listening.subscribe(pattern, [heard](std::string const&, Bytes const& payload,
                                             std::uint32_t) { heard.add(payload); });
    }

    /// The next message that is no discovery: of those that nodes make by themselves, clients hear
    /// what goes to everybody.
    static std::optional<Frame> next(LocalClient& client) {
        auto frame = client.next_frame(K_LONG);
        while (frame && (frame->type == MessageType::DISCOVERY_REQUEST ||
                         frame->type == MessageType::DISCOVERY_RESPONSE)) {
            frame = client.next_frame(K_LONG);
        }
        return frame;
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode node{bus, 200, "node"};
    std::shared_ptr<LocalClient> client;
};

TEST_F(HubLocalClients, AClientNeverHearsWhatItPublishedItself) {
    auto const other = node.hub.connect(501, identity("other"));
    Collected<Bytes> own;
    Collected<Bytes> others;
    hear(*client, "*", own);
    hear(*other, "*", others);
    client->publish("topic", bytes_of("by client"));
    other->publish("topic", bytes_of("by other"));
    EXPECT_THAT(own.all(), ElementsAre(bytes_of("by other")));
    EXPECT_THAT(others.all(), ElementsAre(bytes_of("by client")));
}

TEST_F(HubLocalClients, ADirectedEventNeedsNoSubscription) {
    peer.send(MessageType::EVENT, 500, bytes_of("directed"), "topic", 5);
    auto const frame = next(*client);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->type, MessageType::EVENT);
    EXPECT_EQ(frame->payload, bytes_of("directed"));
    EXPECT_EQ(frame->source, 9u);
    EXPECT_EQ(frame->return_route, 9u);
    EXPECT_EQ(frame->destination, 500u);
    EXPECT_EQ(frame->msg_id, 5u);
    EXPECT_EQ(frame->topic_id, topic_hash("topic"));
}

TEST_F(HubLocalClients, ABroadcastEventWithoutASubscriptionIsNotDelivered) {
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, bytes_of("unwanted"), "topic", 5);
    peer.send(MessageType::EVENT, 200, bytes_of("unwanted"), "topic", 6);
    peer.send(MessageType::EVENT, 500, bytes_of("marker"), "topic", 7);
    EXPECT_EQ(next(*client)->payload, bytes_of("marker"));
}

TEST_F(HubLocalClients, ARequestToEverybodyReachesEveryClient) {
    auto const other = node.hub.connect(501, identity("other"));
    peer.send(MessageType::REQUEST, Hub::BROADCAST_ADDRESS, bytes_of("all"), "topic", 5);
    peer.send(MessageType::REQUEST, 200, bytes_of("hub"), "topic", 6);
    for (auto const& each : {client, other}) {
        EXPECT_EQ(next(*each)->payload, bytes_of("all"));
        EXPECT_EQ(next(*each)->payload, bytes_of("hub"));
    }
}

TEST_F(HubLocalClients, TheSourceIsTheOriginsAndTheAnswerGoesToItsHub) {
    WireFrame header;
    header.type = MessageType::REQUEST;
    header.dest = 500;
    header.origin = Origin(0, 600); // A client of a hub of this domain.
    peer.send(header, {});
    header.origin = Origin(7, 601);
    peer.send(header, {});
    auto const neighbour = next(*client);
    EXPECT_EQ(neighbour->source, 600u);
    EXPECT_EQ(neighbour->return_route, 600u);
    auto const stranger = next(*client);
    EXPECT_EQ(stranger->source, 601u);
    EXPECT_EQ(stranger->return_route, 7u);
}

TEST_F(HubLocalClients, AClientThatHasGoneIsSkipped) {
    Collected<Bytes> heard;
    hear(*client, "topic", heard);
    auto const other = node.hub.connect(501, identity("other"));
    Collected<Bytes> by_other;
    hear(*other, "topic", by_other);
    client.reset();
    peer.send(MessageType::EVENT, 500, bytes_of("for the dead"), "topic", 5);
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, bytes_of("for all"), "topic", 6);
    ASSERT_TRUE(by_other.wait_for(1, "the other client has it"));
    EXPECT_THAT(by_other.all(), ElementsAre(bytes_of("for all")));
    EXPECT_EQ(heard.size(), 0u);
}

TEST_F(HubLocalClients, ClientsOfTwoProcessesTalk) {
    HubNode far(bus, 300, "far");
    far.join();
    auto const server = far.hub.connect(600, identity("server"));
    server->serve(
        "echo", [](Bytes const& payload) { return payload; }, "");
    EXPECT_EQ(client->request_to(600, "echo", bytes_of("hello"), K_LONG), bytes_of("hello"));
    EXPECT_EQ(client->request_to(LocalClient::K_EVERYBODY, "echo", bytes_of("all"), K_LONG),
              bytes_of("all"));
    EXPECT_EQ(far.hub.request("nobody", {}, milliseconds(1)), std::nullopt);
}

TEST_F(HubLocalClients, ClientsOfOneProcessTalk) {
    auto const server = node.hub.connect(501, identity("server"));
    server->serve(
        "echo", [](Bytes const& payload) { return payload; }, "");
    EXPECT_EQ(client->request_to(501, "echo", bytes_of("hello"), K_LONG), bytes_of("hello"));
}

TEST_F(HubLocalClients, WhatAClientPublishesIsRetainedAndWhatItSendsIsNot) {
    client->publish("published", bytes_of("p"));
    client->send(9, "sent", bytes_of("s"));
    client->send(LocalClient::K_EVERYBODY, "sent to all", bytes_of("s"));
    EXPECT_THAT(node.hub.matching_retained_events("*"),
                ElementsAre(std::pair(std::string("published"), bytes_of("p"))));
    EXPECT_EQ(node.hub.discovered_devices().at(200).publications.front().name, "published");
}

TEST_F(HubLocalClients, ASubscriptionOfAClientShowsInTheHubsRecord) {
    client->subscribe(
        "wanted", [](std::string const&, Bytes const&, std::uint32_t) {}, "described");
    auto const own = node.hub.discovered_devices().at(200);
    ASSERT_EQ(own.subscriptions.size(), 1u);
    EXPECT_EQ(own.subscriptions[0].name, "wanted");
    EXPECT_EQ(own.subscriptions[0].description, "described");
    ASSERT_EQ(own.hosted_modules.size(), 1u);
    EXPECT_EQ(own.hosted_modules[0].address, 500u);
}

TEST_F(HubLocalClients, AHandlerThatThrowsWarnsThroughTheHub) {
    client->subscribe("topic", [](std::string const&, Bytes const&, std::uint32_t) {
        throw std::runtime_error("bad luck");
    });
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, {}, "topic", 5);
    ASSERT_TRUE(node.warnings.wait_for(1, "the warning has come"));
    EXPECT_EQ(node.warnings.all().front(),
              "[bus] EVENT handler for 'topic' threw on this payload (malformed/unexpected?): bad "
              "luck");
}

} // namespace
} // namespace tessaron::bus
