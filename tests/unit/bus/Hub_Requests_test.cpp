#include "tests/support/bus_nodes.hpp"

#include <future>
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
using testing::UnorderedElementsAre;

using std::chrono::milliseconds;

struct HubRequests : testing::Test {
    HubRequests() {
        peer.join();
        server.join();
        asker.join();
    }

    /// Answers "ask", beside the name of whoever asks it.
    static Hub::Server echo() {
        return [](Bytes const& payload) { return payload; };
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode server{bus, 200, "server"};
    HubNode asker{bus, 201, "asker"};
};

TEST_F(HubRequests, ARequestEndsInItsReply) {
    server.hub.serve("echo", echo(), "says the same");
    EXPECT_EQ(asker.hub.request("echo", bytes_of("hello"), K_LONG), bytes_of("hello"));
    auto const reply = asker.hub.request_impl("echo", bytes_of("again"), K_LONG);
    EXPECT_EQ(reply, (RequestReply{200, bytes_of("again")}));
}

TEST_F(HubRequests, LargeRequestsAndRepliesCross) {
    server.hub.serve("echo", echo(), "");
    Bytes const payload = test::pattern_bytes(300'000);
    EXPECT_EQ(asker.hub.request("echo", payload, K_LONG), payload);
}

TEST_F(HubRequests, AnEmptyReplyIsAReply) {
    server.hub.serve(
        "nothing", [](Bytes const&) { return Bytes(); }, "");
    EXPECT_EQ(asker.hub.request("nothing", {}, K_LONG), Bytes());
}

TEST_F(HubRequests, WithoutAServerTheWholeTimePasses) {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(asker.hub.request("nobody", {}, milliseconds(50)), std::nullopt);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(50));
}

TEST_F(HubRequests, AReplyTellsTheRequestsIdAndWhereItCameFrom) {
    server.hub.serve("echo", echo(), "");
    peer.send(MessageType::REQUEST, Hub::BROADCAST_ADDRESS, bytes_of("x"), "echo", 4711);
    ASSERT_TRUE(peer.wait_for(MessageType::RESPONSE, 1, "the reply has come"));
    auto const reply = peer.heard(MessageType::RESPONSE).front();
    EXPECT_EQ(reply.msg_id, 4711u);
    EXPECT_EQ(reply.dest, 9u);
    EXPECT_EQ(reply.source, 200u);
    EXPECT_EQ(reply.origin, Origin(0, 200));
    EXPECT_EQ(reply.topic_id, 0u);
    EXPECT_EQ(reply.data, bytes_of("x"));
}

TEST_F(HubRequests, ARequestWithAnOriginIsAnsweredThere) {
    server.hub.serve("echo", echo(), "");
    WireFrame header;
    header.type = MessageType::REQUEST;
    header.dest = 200;
    header.topic_id = topic_hash("echo");
    header.origin = Origin(0, 500); // In this node's own domain.
    peer.send(header, {});
    header.origin = Origin(7, 500); // In another.
    peer.send(header, {});
    ASSERT_TRUE(peer.wait_for(MessageType::RESPONSE, 2, "both replies have come"));
    auto const replies = peer.heard(MessageType::RESPONSE);
    EXPECT_EQ(replies[0].dest, 500u);
    EXPECT_EQ(replies[1].dest, 7u);
}

TEST_F(HubRequests, TheFasterOfTwoServersAnswersTheRequest) {
    std::promise<void> asked_both;
    HubNode slow(bus, 202, "slow");
    slow.join();
    slow.hub.serve(
        "who",
        [&](Bytes const&) {
            asked_both.get_future().wait_for(K_LONG);
            return bytes_of("slow");
        },
        "");
    server.hub.serve(
        "who", [](Bytes const&) { return bytes_of("fast"); }, "");
    EXPECT_EQ(asker.hub.request("who", {}, K_LONG), bytes_of("fast"));
    asked_both.set_value();
}

TEST_F(HubRequests, CollectingWaitsForAllToTheEndOfTheTime) {
    HubNode second(bus, 202, "second");
    second.join();
    server.hub.serve("echo", echo(), "");
    second.hub.serve("echo", echo(), "");
    auto const begin = std::chrono::steady_clock::now();
    auto const replies = asker.hub.request_to_and_collect(Hub::BROADCAST_ADDRESS, "echo",
                                                          bytes_of("x"), milliseconds(300));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(300));
    EXPECT_THAT(replies, UnorderedElementsAre(RequestReply{200, bytes_of("x")},
                                              RequestReply{202, bytes_of("x")}));
}

TEST_F(HubRequests, AnAimedRequestReachesOneServer) {
    HubNode second(bus, 202, "second");
    second.join();
    server.hub.serve("echo", echo(), "");
    second.hub.serve("echo", echo(), "");
    EXPECT_THAT(asker.hub.request_to_and_collect(202, "echo", {}, milliseconds(300)),
                ElementsAre(RequestReply{202, {}}));
}

TEST_F(HubRequests, ANodeThatAnswersTwiceCountsOnceWithItsLastAnswer) {
    server.hub.serve(
        "twice", [](Bytes const&) { return bytes_of("exact"); }, "");
    server.hub.on_request(
        "twi*", [](std::string const&, Bytes const&, std::uint32_t) { return bytes_of("glob"); },
        "");
    EXPECT_THAT(asker.hub.request_to_and_collect(200, "twice", {}, milliseconds(300)),
                ElementsAre(RequestReply{200, bytes_of("glob")}));
}

TEST_F(HubRequests, HandlersLearnTheTopicAndTheRequester) {
    Collected<std::pair<std::string, std::uint32_t>> calls;
    server.hub.on_request(
        "where.*",
        [&](std::string const& topic, Bytes const&, std::uint32_t requester) {
            calls.add({topic, requester});
            return Bytes();
        },
        "");
    server.hub.on_request(
        "where.from", [](std::string const&, Bytes const&, std::uint32_t) { return Bytes(); }, "");
    ASSERT_TRUE(asker.hub.request("where.from", {}, K_LONG));
    ASSERT_TRUE(calls.wait_for(1, "the pattern's handler has been called"));
    EXPECT_THAT(calls.all(), ElementsAre(std::pair("where.from", 201u)));
}

TEST_F(HubRequests, AHandlerThatThrowsStopsNoOther) {
    server.hub.serve(
        "topic", [](Bytes const&) -> Bytes { throw std::runtime_error("bad luck"); }, "");
    server.hub.on_request(
        "topi*", [](std::string const&, Bytes const&, std::uint32_t) -> Bytes { throw 7; }, "");
    server.hub.on_request(
        "topic*", [](std::string const&, Bytes const&, std::uint32_t) { return bytes_of("well"); },
        "");
    EXPECT_EQ(asker.hub.request("topic", {}, K_LONG), bytes_of("well"));
    EXPECT_THAT(server.warnings.all(),
                ElementsAre("[bus] REQUEST handler for 'topic' threw on this payload "
                            "(malformed/unexpected?): bad luck - dropping, requester will see a "
                            "timeout",
                            "[bus] REQUEST handler for 'topic' threw a non-std::exception on this "
                            "payload - dropping, requester will see a timeout"));
}

TEST_F(HubRequests, RequestsAreServedOneAtATimeAndInOrder) {
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    Collected<Bytes> served;
    server.hub.serve(
        "topic",
        [&](Bytes const& payload) {
            overlapped = overlapped || ++running > 1;
            --running;
            served.add(payload);
            return payload;
        },
        "");
    std::vector<Bytes> sent;
    for (std::uint8_t i = 0; i < 50; ++i) {
        sent.push_back({i});
        peer.send(MessageType::REQUEST, 200, sent.back(), "topic", i);
    }
    ASSERT_TRUE(served.wait_for(50, "all have been served"));
    EXPECT_EQ(served.all(), sent);
    EXPECT_FALSE(overlapped);
}

TEST_F(HubRequests, ALateResponseIsDropped) {
    peer.send(MessageType::RESPONSE, 201, bytes_of("nobody asked"), "", 12345);
    server.hub.serve("echo", echo(), "");
    EXPECT_EQ(asker.hub.request("echo", bytes_of("x"), K_LONG), bytes_of("x"));
}

TEST_F(HubRequests, ARequestInsideAnEventHandlerTimesOut) {
    server.hub.serve("echo", echo(), "");
    Collected<bool> answered;
    asker.hub.subscribe_pattern(
        "trigger",
        [this, answered](std::string const&, Bytes const&, Origin const&) {
            answered.add(asker.hub.request("echo", {}, milliseconds(100)).has_value());
        },
        "");
    server.hub.publish("trigger", {});
    ASSERT_TRUE(answered.wait_for(1, "the handler has returned"));
    EXPECT_THAT(answered.all(), ElementsAre(false));
}

TEST_F(HubRequests, ARequestInsideARequestHandlerWorks) {
    server.hub.serve("echo", echo(), "");
    asker.hub.serve(
        "relay",
        [&](Bytes const& payload) {
            return asker.hub.request("echo", payload, K_LONG).value_or(bytes_of("timed out"));
        },
        "");
    EXPECT_EQ(server.hub.request("relay", bytes_of("hello"), K_LONG), bytes_of("hello"));
}

TEST_F(HubRequests, EventsArriveWhileARequestHandlerIsBusy) {
    Collected<Bytes> events;
    asker.hub.subscribe_pattern(
        "event",
        [events](std::string const&, Bytes const& payload, Origin const&) { events.add(payload); },
        "");
    Collected<bool> seen;
    asker.hub.serve(
        "busy",
        [&](Bytes const&) {
            seen.add(events.wait_for(1, "the event has come"));
            return Bytes();
        },
        "");
    peer.send(MessageType::REQUEST, 201, {}, "busy", 1);
    peer.send(MessageType::EVENT, 201, {}, "event", 2);
    ASSERT_TRUE(seen.wait_for(1, "the request handler has returned"));
    EXPECT_THAT(seen.all(), ElementsAre(true));
}

TEST_F(HubRequests, ASilencedHubIgnoresTheBroadcastQuestionForTheNetworkOnly) {
    server.hub.set_skip_broadcast_discovery_response(true);
    Collected<Bytes> asked;
    auto const answer = [&](std::string const&, Bytes const& payload, std::uint32_t) {
        asked.add(payload);
        return Bytes();
    };
    server.hub.on_request("bus.discover_network", answer, "");
    server.hub.on_request("other", answer, "");
    std::uint32_t const everybody = Hub::BROADCAST_ADDRESS;
    peer.send(MessageType::REQUEST, everybody, bytes_of("a"), "bus.discover_network", 1);
    peer.send(MessageType::REQUEST, 0, bytes_of("b"), "bus.discover_network", 2);
    peer.send(MessageType::REQUEST, 200, bytes_of("c"), "bus.discover_network", 3);
    peer.send(MessageType::REQUEST, everybody, bytes_of("d"), "other", 4);
    ASSERT_TRUE(asked.wait_for(2, "the others have been asked"));
    EXPECT_THAT(asked.all(), ElementsAre(bytes_of("c"), bytes_of("d")));
    WireFrame question;
    question.type = MessageType::DISCOVERY_REQUEST;
    question.dest = everybody;
    peer.send(question, {});
    EXPECT_TRUE(peer.wait_for(MessageType::DISCOVERY_RESPONSE, 1, "it still tells who it is"));
}

} // namespace
} // namespace tessaron::bus
