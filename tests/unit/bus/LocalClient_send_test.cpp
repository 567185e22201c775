#include "tests/support/ScriptedHub.hpp"
#include "tests/support/wait_until.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What a client says, asks and is told when it subscribes.

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using proto::bus::TopicKind;
using test::event_frame;
using test::request_frame;
using test::response_frame;
using test::ScriptedHub;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Bytes = LocalClient::Bytes;

/// A record of one byte; it refuses an empty payload.
struct Number {
    Bytes build() const { return {value}; }
    static Number parse(Bytes const& payload) { return {payload.at(0)}; }

    std::uint8_t value = 0;
};

/// Serves, asks, and gives the reply.
Bytes reply_to(ScriptedHub& hub, LocalClient& client, std::string const& topic, Bytes request) {
    std::size_t const before = hub.responses().size();
    client.push(request_frame(topic, std::move(request)));
    test::wait_until([&] { return hub.responses().size() > before; }, "the reply is sent");
    return hub.responses().back().payload;
}

TEST(LocalClientSend, PublishesToEverybodyAndSendsToOne) {
    ScriptedHub hub;
    auto const client = hub.connect();
    EXPECT_EQ(client->publish("a", Bytes{1}), 1U);
    EXPECT_EQ(client->send(9, "b", Bytes{2}), 2U);
    EXPECT_THAT(hub.events(), ElementsAre(ScriptedHub::Event{0xFFFFFFFF, "a", {1}, true},
                                          ScriptedHub::Event{9, "b", {2}, false}));
}

TEST(LocalClientSend, PublishesEnvelopesAndRecords) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->publish("a", Envelope());
    client->publish("b", Number{5});
    ASSERT_EQ(hub.events().size(), 2U);
    EXPECT_EQ(hub.events()[0].payload, Bytes(8, 0));
    EXPECT_EQ(hub.events()[1].payload, Bytes{5});
}

TEST(LocalClientSend, AdvertisesWhatItServesAndPublishes) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve(
        "served", [](Bytes const&) { return Bytes(); }, "answers", {{"p", "a number", true}}, true);
    client->advertise("told", "news");
    client->advertise_with_kind("other", "asked elsewhere", TopicKind::REQUEST);
    EXPECT_THAT(
        hub.adverts(),
        ElementsAre(
            ScriptedHub::Advert{
                "served", "answers", TopicKind::REQUEST, {{"p", "a number", true}}, true},
            ScriptedHub::Advert{"told", "news", TopicKind::EVENT, {}, false},
            ScriptedHub::Advert{"other", "asked elsewhere", TopicKind::REQUEST, {}, false}));
}

TEST(LocalClientSend, ListsItsTopicsOnce) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->advertise("b", "");
    client->publish("b", Bytes{1});
    client->publish("a", Bytes{1});
    client->publish("a", Bytes{2});
    client->subscribe("c.*", [](auto const&, auto const&, auto) {});
    EXPECT_THAT(client->topics(), ElementsAre("a", "b", "c.*"));
}

TEST(LocalClientSend, ASubscriptionIsToldToTheHub) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->subscribe(
        "a.*", [](auto const&, auto const&, auto) {}, "all of a");
    client->subscribe<Number>("b", [](Number const&) {});
    EXPECT_THAT(hub.heard(), ElementsAre(Pair("a.*", "all of a"), Pair("b", "")));
}

TEST(LocalClientSend, ASubscriberIsToldWhatIsRetained) {
    ScriptedHub hub;
    hub.retained = [](std::string const& pattern) -> ReplayedHandler::Retained {
        EXPECT_EQ(pattern, "a.*");
        return {{"a.b", {1}}, {"a.c", {2}}};
    };
    auto const client = hub.connect();
    std::vector<std::pair<std::string, Bytes>> heard;
    client->subscribe("a.*", [&](std::string const& topic, Bytes const& payload, std::uint32_t) {
        heard.emplace_back(topic, payload);
    });
    EXPECT_THAT(heard, ElementsAre(Pair("a.b", Bytes{1}), Pair("a.c", Bytes{2})));
}

TEST(LocalClientSend, ASubscriberIsNotToldWhatItPublishedItself) {
    ScriptedHub hub;
    hub.retained = [](std::string const&) -> ReplayedHandler::Retained {
        return {{"mine", {1}}, {"theirs", {2}}};
    };
    auto const client = hub.connect();
    client->publish("mine", Bytes{1});
    std::vector<std::string> heard;
    client->subscribe("*", [&](std::string const& topic, Bytes const&, std::uint32_t) {
        heard.push_back(topic);
    });
    EXPECT_THAT(heard, ElementsAre("theirs"));
}

TEST(LocalClientSend, AnEventDuringTheReplayIsHeardAfterIt) {
    ScriptedHub hub;
    std::shared_ptr<LocalClient> client;
    hub.retained = [&](std::string const&) -> ReplayedHandler::Retained {
        // The handler is entered already: nothing that is published from here on is missed.
        client->push(event_frame("a", {2}));
        return {{"a", {1}}};
    };
    client = hub.connect();
    std::vector<Bytes> heard;
    client->subscribe(
        "a", [&](auto const&, Bytes const& payload, std::uint32_t) { heard.push_back(payload); });
    EXPECT_THAT(heard, ElementsAre(Bytes{1}, Bytes{2}));
}

TEST(LocalClientSend, ARetainedPayloadThatTheHandlerRefusesCostsAWarning) {
    ScriptedHub hub;
    hub.retained = [](std::string const&) -> ReplayedHandler::Retained { return {{"a", {}}}; };
    auto const client = hub.connect();
    client->subscribe<Number>("a", [](Number const&) {});
    ASSERT_EQ(hub.warnings().size(), 1U);
    EXPECT_THAT(hub.warnings()[0], testing::StartsWith("[bus] EVENT handler for 'a' threw on "));
}

TEST(LocalClientSend, AGetterAnswersWhateverTheRequest) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve_getter(
        "value", [] { return Bytes{7}; }, "");
    EXPECT_EQ(reply_to(hub, *client, "value", {}), Bytes{7});
    EXPECT_EQ(reply_to(hub, *client, "value", {1, 2}), Bytes{7});
}

TEST(LocalClientSend, ASetterAnswersAsItLikes) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Bytes value;
    client->serve_setter(
        "value",
        [&](Bytes const& request) {
            value = request;
            return Bytes{1};
        },
        "");
    EXPECT_EQ(reply_to(hub, *client, "value", {4}), Bytes{1});
    EXPECT_EQ(value, Bytes{4});
}

TEST(LocalClientSend, APropertyIsAskedAndSetUnderATopicEach) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Bytes value{1};
    client->serve_property(
        "value", [&] { return value; }, "what it is",
        [&](Bytes const& request) {
            value = request;
            return Bytes{0};
        },
        "sets it", {{"value", "a number", true}});
    EXPECT_EQ(reply_to(hub, *client, "value.get", {}), Bytes{1});
    EXPECT_EQ(reply_to(hub, *client, "value.set", {8, 9}), Bytes{0});
    EXPECT_EQ(reply_to(hub, *client, "value.get", {7}), (Bytes{8, 9}));
    EXPECT_THAT(
        hub.adverts(),
        ElementsAre(
            ScriptedHub::Advert{"value.get", "what it is", TopicKind::REQUEST, {}, false},
            ScriptedHub::Advert{
                "value.set", "sets it", TopicKind::REQUEST, {{"value", "a number", true}}, false}));
}

TEST(LocalClientSend, RecordsAreServed) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve_record<Number, Number>(
        "next",
        [](Number const& number) { return Number{static_cast<std::uint8_t>(number.value + 1)}; },
        "");
    client->push(request_frame("next", {}));
    EXPECT_EQ(reply_to(hub, *client, "next", {1}), Bytes{2});
    EXPECT_EQ(hub.warnings().size(), 1U);
}

TEST(LocalClientSend, ARequestGetsItsReply) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::thread peer;
    hub.answer = [&](ScriptedHub::Request const& request) {
        EXPECT_EQ(request.target, 12U);
        EXPECT_EQ(request.topic_id, proto::bus::topic_hash("ask"));
        peer = std::thread([&client, request] {
            client->push(response_frame(request.msg_id + 1, {0}));
            client->push(response_frame(request.msg_id, request.payload));
        });
    };
    EXPECT_EQ(client->request_to(12, "ask", {1, 2}, 1h), (Bytes{1, 2}));
    peer.join();
    EXPECT_EQ(client->next_frame(0ms)->payload, Bytes{0});
}

TEST(LocalClientSend, ARequestThatNobodyAnswersGivesNothingAfterTheTime) {
    ScriptedHub hub;
    auto const client = hub.connect();
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(client->request_to(12, "ask", {}, 20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
}

TEST(LocalClientSend, AReplyThatComesTooLateIsNotTakenForAnotherRequests) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::uint32_t first_id = 0;
    hub.answer = [&](ScriptedHub::Request const& request) { first_id = request.msg_id; };
    EXPECT_FALSE(client->request_to(12, "ask", {}, 1ms));
    hub.answer = [&](ScriptedHub::Request const& request) {
        client->push(response_frame(first_id, {1}));
        client->push(response_frame(request.msg_id, {2}));
    };
    EXPECT_EQ(client->request_to(12, "ask", {}, 1h), Bytes{2});
}

TEST(LocalClientSend, RecordsAreAskedWithAndAnswered) {
    ScriptedHub hub;
    auto const client = hub.connect();
    Bytes reply{6};
    hub.answer = [&](ScriptedHub::Request const& request) {
        EXPECT_EQ(request.payload, Bytes{5});
        client->push(response_frame(request.msg_id, reply));
    };
    auto const number = client->call<Number>(12, "ask", Number{5}, 1h);
    ASSERT_TRUE(number);
    EXPECT_EQ(number->value, 6);
    reply.clear();
    EXPECT_FALSE(client->call<Number>(12, "ask", Number{5}, 1h));
}

bus::Frame reply_of(std::uint32_t source, std::uint32_t msg_id, Bytes payload) {
    auto frame = response_frame(msg_id, std::move(payload));
    frame.source = source;
    return frame;
}

TEST(LocalClientSend, ACallGivesAllRepliesAtTheEndOfItsTime) {
    ScriptedHub hub;
    auto const client = hub.connect();
    hub.answer = [&](ScriptedHub::Request const& request) {
        EXPECT_EQ(request.target, 12U);
        EXPECT_EQ(request.topic_id, proto::bus::topic_hash("ask"));
        client->push(reply_of(8, request.msg_id, {request.payload.at(0), 8}));
        client->push(reply_of(5, request.msg_id, {5}));
        client->push(reply_of(6, request.msg_id + 1, {6}));
        client->push(reply_of(5, request.msg_id, {55}));
    };
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client->call(12, "ask", {1}, 20ms), (LocalClient::Replies{{5, {55}}, {8, {1, 8}}}));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
    hub.answer = nullptr;
    EXPECT_THAT(client->call(12, "ask", {1}, 1ms), IsEmpty());
}

TEST(LocalClientSend, ACallEndsWithTheReplyThatIsTheLast) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::thread peer;
    hub.answer = [&](ScriptedHub::Request const& request) {
        peer = std::thread([&client, id = request.msg_id] {
            client->push(reply_of(8, id, {1}));
            client->push(reply_of(9, id, {2}));
        });
    };
    auto const replies =
        client->call(12, "ask", {}, 1h, [](Bytes const& reply) { return reply == Bytes{2}; });
    peer.join();
    EXPECT_EQ(replies, (LocalClient::Replies{{8, {1}}, {9, {2}}}));
}

TEST(LocalClientSend, ARequestHandlerMayAskAndPublish) {
    ScriptedHub hub;
    auto const client = hub.connect();
    hub.answer = [&](ScriptedHub::Request const& request) {
        client->push(response_frame(request.msg_id, {3}));
    };
    client->serve(
        "relay",
        [&](Bytes const& request) {
            client->publish("relayed", request);
            return client->request_to(12, "ask", request, 1h).value_or(Bytes());
        },
        "");
    EXPECT_EQ(reply_to(hub, *client, "relay", {1}), Bytes{3});
    EXPECT_EQ(hub.events().size(), 1U);
}

TEST(LocalClientSend, ShowsTheDevicesThatTheHubKnows) {
    ScriptedHub hub;
    hub.devices[5].address = 5;
    EXPECT_EQ(hub.connect()->discovered_devices().at(5).address, 5U);
}

TEST(LocalClientSend, WithoutBindingsItIsSilent) {
    auto const client = LocalClient::make(1, {}, {});
    client->advertise("a", "");
    client->subscribe("a", [](auto const&, auto const&, auto) { throw 1; });
    client->push(event_frame("a"));
    EXPECT_EQ(client->publish("a", Bytes{1}), 0U);
    EXPECT_EQ(client->send(2, "a", {}), 0U);
    EXPECT_FALSE(client->request_to(2, "a", {}, 1ms));
    EXPECT_THAT(client->discovered_devices(), IsEmpty());
}

} // namespace
} // namespace tessaron::bus
