#include "bus/LocalClient.hpp"

#include "tests/support/ScriptedHub.hpp"
#include "tests/support/wait_until.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

// What reaches a client, and who takes it.

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using proto::bus::MessageType;
using proto::bus::topic_hash;
using test::client_frame;
using test::event_frame;
using test::request_frame;
using test::response_frame;
using test::ScriptedHub;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = LocalClient::Bytes;

struct Heard {
    LocalClient::EventHandler handler() {
        return [this](std::string const& topic, Bytes const& payload, std::uint32_t source) {
            events.push_back(topic + "=" + std::string(payload.begin(), payload.end()) + " from " +
                             std::to_string(source));
        };
    }

    std::vector<std::string> events;
};

/// The payload of the next frame that nobody took, if there is one.
Bytes next_payload(LocalClient& client) {
    auto const frame = client.next_frame(0ms);
    return frame ? frame->payload : Bytes{0xEE};
}

TEST(LocalClient, IsNamedByItsAddress) {
    ScriptedHub hub;
    auto const client = hub.connect(4294967295U);
    EXPECT_EQ(client->address(), 4294967295U);
    EXPECT_EQ(client->debug_name(), "client-4294967295");
    EXPECT_STREQ(client->identity().name, "service");
}

TEST(LocalClient, AnEventReachesTheHandlersOfItsTopicAndOfMatchingPatterns) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Heard exact;
    Heard pattern;
    Heard other;
    client->subscribe("a.b", exact.handler());
    client->subscribe("a.*", pattern.handler());
    client->subscribe("a.c", other.handler());
    client->push(event_frame("a.b", {'x'}));
    EXPECT_THAT(exact.events, ElementsAre("a.b=x from 3"));
    EXPECT_THAT(pattern.events, ElementsAre("a.b=x from 3"));
    EXPECT_THAT(other.events, IsEmpty());
    EXPECT_FALSE(client->next_frame(0ms));
}

TEST(LocalClient, AnEventWithoutANameReachesTheExactHandlerUnderItsOwn) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Heard exact;
    Heard pattern;
    client->subscribe("a.b", exact.handler());
    client->subscribe("*", pattern.handler());
    Frame frame = event_frame("a.b", {'x'});
    frame.topic.clear();
    client->push(frame);
    EXPECT_THAT(exact.events, ElementsAre("a.b=x from 3"));
    EXPECT_THAT(pattern.events, IsEmpty());
}

TEST(LocalClient, AnEventThatNobodyHandlesIsQueued) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->push(event_frame("a.b", {5}));
    auto const frame = client->next_frame(0ms);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->type, MessageType::EVENT);
    EXPECT_EQ(frame->topic, "a.b");
    EXPECT_EQ(frame->payload, Bytes{5});
}

TEST(LocalClient, TellsWhetherAnEventInterestsIt) {
    ScriptedHub hub;
    auto const client = hub.connect();
    EXPECT_FALSE(client->has_event_subscription(topic_hash("a.b"), "a.b"));
    client->subscribe("a.b", [](auto const&, auto const&, auto) {});
    client->subscribe("c.*", [](auto const&, auto const&, auto) {});
    client->serve(
        "served", [](Bytes const&) { return Bytes(); }, "");
    EXPECT_TRUE(client->has_event_subscription(topic_hash("a.b"), ""));
    EXPECT_TRUE(client->has_event_subscription(0, "c.d"));
    EXPECT_FALSE(client->has_event_subscription(0, "a.b"));
    EXPECT_FALSE(client->has_event_subscription(topic_hash("c.d"), ""));
    EXPECT_FALSE(client->has_event_subscription(topic_hash("served"), "served"));
}

TEST(LocalClient, AnEventHandlerThatThrowsCostsAWarningAndTheOthersRun) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Heard heard;
    client->subscribe("a", [](auto const&, auto const&, auto) { throw std::runtime_error("why"); });
    client->subscribe("a*", [](auto const&, auto const&, auto) { throw 5; });
    client->subscribe("*", heard.handler());
    client->push(event_frame("a", {'x'}));
    EXPECT_THAT(
        hub.warnings(),
        testing::UnorderedElementsAre(
            "[bus] EVENT handler for 'a' threw on this payload (malformed/unexpected?): why",
            "[bus] EVENT handler for 'a' threw a non-std::exception on this payload"));
    EXPECT_THAT(heard.events, ElementsAre("a=x from 3"));
    EXPECT_FALSE(client->next_frame(0ms));
}

TEST(LocalClient, APayloadThatIsNoRecordCostsAWarning) {
    struct Record {
        static Record parse(Bytes const& payload) {
            return {decode_envelope(payload).fields.at("text")};
        }
        std::string text;
    };
    ScriptedHub hub;
    auto const client = hub.connect();
    std::vector<std::string> texts;
    client->subscribe<Record>("a", [&](Record const& record) { texts.push_back(record.text); });
    client->push(event_frame("a", {1, 2, 3}));
    client->push(event_frame("a", encode_envelope({.fields = {{"text", "good"}}, .data = {}})));
    EXPECT_THAT(hub.warnings(),
                ElementsAre("[bus] EVENT handler for 'a' threw on this payload "
                            "(malformed/unexpected?): Envelope: truncated or malformed"));
    EXPECT_THAT(texts, ElementsAre("good"));
}

TEST(LocalClient, AnEventHandlerMaySubscribePublishAndServe) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Heard late;
    client->subscribe("a", [&](auto const&, auto const&, auto) {
        client->subscribe("b", late.handler());
        client->publish("c", Bytes{1});
        client->serve(
            "d", [](Bytes const& request) { return request; }, "");
        EXPECT_TRUE(client->has_event_subscription(topic_hash("b"), "b"));
    });
    client->push(event_frame("a"));
    client->push(event_frame("b", {'y'}));
    EXPECT_THAT(late.events, ElementsAre("b=y from 3"));
    EXPECT_EQ(hub.events().size(), 1U);
    client->push(request_frame("d", {9}));
    test::wait_until([&] { return hub.responses().size() == 1; }, "the reply is sent");
}

TEST(LocalClient, AnEventHandlerMayHandTheClientAnotherFrame) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Heard heard;
    client->subscribe(
        "a", [&](auto const&, auto const&, auto) { client->push(event_frame("b", {'n'})); });
    client->subscribe("b", heard.handler());
    client->push(event_frame("a"));
    EXPECT_THAT(heard.events, ElementsAre("b=n from 3"));
}

TEST(LocalClient, AResponseThatNobodyWaitsForIsQueued) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->push(response_frame(5, {6}));
    EXPECT_EQ(next_payload(*client), Bytes{6});
}

TEST(LocalClient, OtherTypesAreQueued) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->push(client_frame(MessageType::DISCOVERY_RESPONSE, "", {1}));
    client->push(client_frame(static_cast<MessageType>(0x7f), "", {2}));
    EXPECT_EQ(next_payload(*client), Bytes{1});
    EXPECT_EQ(next_payload(*client), Bytes{2});
}

TEST(LocalClient, Of257FramesThatNobodyTookTheNewest256AreLeft) {
    ScriptedHub hub;
    auto const client = hub.connect();
    for (unsigned i = 0; i < 257; ++i) {
        client->push(event_frame("a", {static_cast<std::uint8_t>(i % 256), i == 256}));
    }
    for (unsigned i = 1; i < 257; ++i) {
        Bytes const expected{static_cast<std::uint8_t>(i % 256), i == 256};
        ASSERT_EQ(next_payload(*client), expected);
    }
    EXPECT_FALSE(client->next_frame(0ms));
}

TEST(LocalClient, FewLargeFramesFillTheQueueToo) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::size_t const half = LocalClient::K_MAX_QUEUED_BYTES / 2;
    client->push(event_frame("a", Bytes(half, 1)));
    client->push(event_frame("a", Bytes(half, 2)));
    client->push(event_frame("a", Bytes(1, 3)));
    EXPECT_EQ(next_payload(*client).at(0), 2);
    client->push(event_frame("a", Bytes(half * 2 + 1, 4)));
    EXPECT_EQ(next_payload(*client).at(0), 4);
    EXPECT_FALSE(client->next_frame(0ms));
}

TEST(LocalClient, WhoeverWaitsForAFrameGetsTheNext) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::thread peer([&] { client->push(event_frame("a", {4})); });
    auto const frame = client->next_frame(1h);
    peer.join();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, Bytes{4});
}

} // namespace
} // namespace tessaron::bus
