#include "bus/LocalClient.hpp"

#include "tests/support/ScriptedHub.hpp"
#include "tests/support/wait_until.hpp"

#include <algorithm>
#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

// What a client answers, and on which thread; and how its waiting for answers is ended.

namespace tessaron::bus {
namespace {

using test::event_frame;
using test::request_frame;
using test::ScriptedHub;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = LocalClient::Bytes;

TEST(LocalClientRequests, ARequestIsAnsweredToItsReturnRouteWithItsId) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve(
        "double",
        [](Bytes const& request) { return Bytes{static_cast<std::uint8_t>(request.at(0) * 2)}; },
        "");
    client->push(request_frame("double", {21}, 77));
    test::wait_until([&] { return !hub.responses().empty(); }, "the reply is sent");
    EXPECT_THAT(hub.responses(), ElementsAre(ScriptedHub::Response{4, 77, {42}}));
}

TEST(LocalClientRequests, AnEmptyReplyIsStillSent) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve(
        "a", [](Bytes const&) { return Bytes(); }, "");
    client->push(request_frame("a"));
    test::wait_until([&] { return !hub.responses().empty(); }, "the reply is sent");
    EXPECT_THAT(hub.responses(), ElementsAre(ScriptedHub::Response{4, 1, {}}));
}

TEST(LocalClientRequests, OfSeveralServersOneAnswersAndTheExactOneFirst) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve(
        "*", [](Bytes const&) { return Bytes{1}; }, "");
    client->serve(
        "a", [](Bytes const&) { return Bytes{2}; }, "");
    client->push(request_frame("a", {}, 1));
    client->push(request_frame("b", {}, 2));
    test::wait_until([&] { return hub.responses().size() == 2; }, "both are answered");
    EXPECT_THAT(hub.responses(),
                ElementsAre(ScriptedHub::Response{4, 1, {2}}, ScriptedHub::Response{4, 2, {1}}));
}

TEST(LocalClientRequests, ARequestThatNobodyServesIsQueued) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->subscribe("a", [](auto const&, auto const&, auto) {});
    client->push(request_frame("a", {8}));
    auto const frame = client->next_frame(LocalClient::Milliseconds(0));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, Bytes{8});
    EXPECT_THAT(hub.responses(), IsEmpty());
}

TEST(LocalClientRequests, ARequestHandlerThatThrowsCostsAWarningAndNoReplyIsSent) {
    ScriptedHub hub;
    auto const client = hub.connect();
    client->serve(
        "std", [](Bytes const&) -> Bytes { throw std::runtime_error("why"); }, "");
    client->serve(
        "other", [](Bytes const&) -> Bytes { throw 5; }, "");
    client->serve(
        "good", [](Bytes const&) { return Bytes{1}; }, "");
    client->push(request_frame("std", {}, 1));
    client->push(request_frame("other", {}, 2));
    client->push(request_frame("good", {}, 3));
    test::wait_until([&] { return !hub.responses().empty(); }, "the good one is answered");
    EXPECT_THAT(hub.responses(), ElementsAre(ScriptedHub::Response{4, 3, {1}}));
    EXPECT_THAT(hub.warnings(),
                ElementsAre("[bus] REQUEST handler for 'std' threw on this payload "
                            "(malformed/unexpected?): why - dropping, requester will see a timeout",
                            "[bus] REQUEST handler for 'other' threw a non-std::exception on this "
                            "payload - dropping, requester will see a timeout"));
}

TEST(LocalClientRequests, RequestsAreServedOneAtATimeWhileEventsGoOn) {
    ScriptedHub hub;
    auto const client = hub.connect();
    std::promise<void> gate;
    auto const opened = gate.get_future().share();
    std::atomic<int> within{0};
    std::atomic<int> most{0};
    int events = 0;
    client->subscribe("event", [&](auto const&, auto const&, auto) { ++events; });
    client->serve(
        "slow",
        [&](Bytes const& request) {
            most = std::max<int>(most, ++within);
            opened.wait();
            --within;
            return request;
        },
        "");
    client->push(request_frame("slow", {1}, 1));
    client->push(request_frame("slow", {2}, 2));
    test::wait_until([&] { return within == 1; }, "the first request is being served");
    client->push(event_frame("event", {'e'}));
    EXPECT_EQ(events, 1);
    gate.set_value();
    test::wait_until([&] { return hub.responses().size() == 2; }, "both are answered");
    EXPECT_EQ(most, 1);
}

TEST(LocalClientRequests, WhoeverWaitsCanBeToldToStop) {
    ScriptedHub hub;
    std::atomic<int> sent{0};
    hub.answer = [&](auto const&) { ++sent; };
    auto const client = hub.connect();
    std::chrono::hours const for_ever(1);
    auto first = std::async(std::launch::async,
                            [&] { return client->request_to(4, "a", {}, for_ever).has_value(); });
    auto all =
        std::async(std::launch::async, [&] { return client->call(4, "b", {}, for_ever).size(); });
    test::wait_until([&] { return sent == 2; }, "both are asked");
    client->stop_waiting();
    EXPECT_FALSE(first.get());
    EXPECT_EQ(all.get(), 0U);
    EXPECT_FALSE(client->request_to(4, "a", {}, for_ever));
    EXPECT_THAT(client->call(4, "b", {}, for_ever), IsEmpty());
}

TEST(LocalClientRequests, WhatHasComeBeforeAStopIsTheAnswer) {
    ScriptedHub hub;
    std::shared_ptr<LocalClient> client;
    hub.answer = [&](ScriptedHub::Request const& request) {
        Frame reply;
        reply.type = proto::bus::MessageType::RESPONSE;
        reply.msg_id = request.msg_id;
        reply.source = request.target;
        reply.payload = {7};
        client->push(reply);
        client->stop_waiting();
    };
    client = hub.connect();
    EXPECT_THAT(client->call(4, "a", {}, std::chrono::hours(1)),
                ElementsAre(std::pair<std::uint32_t const, Bytes>(4, {7})));
}

} // namespace
} // namespace tessaron::bus
