#include "tests/support/ScriptedHub.hpp"
#include "tests/support/wait_until.hpp"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The end of a client, while others still use it.

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using test::event_frame;
using test::request_frame;
using test::response_frame;
using test::ScriptedHub;
using Bytes = LocalClient::Bytes;

/// A handler that stays until it is let go, and says where it is.
struct HeldHandler {
    void operator()() {
        entered = true;
        opened.wait();
        left = true;
    }

    std::promise<void> gate;
    std::shared_future<void> opened{gate.get_future()};
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
};

TEST(LocalClientLife, TheHubsPointerDoesNotKeepItAlive) {
    ScriptedHub hub;
    auto client = hub.connect();
    std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
    EXPECT_EQ(hubs.lock(), client);
    client.reset();
    EXPECT_EQ(hubs.lock(), nullptr);
}

TEST(LocalClientLife, WaitsForTheRequestHandlerThatRunsAndItsReplyIsSent) {
    ScriptedHub hub;
    auto client = hub.connect();
    HeldHandler held;
    client->serve(
        "slow",
        [&](Bytes const& request) {
            held();
            return request;
        },
        "");
    client->push(request_frame("slow", {1}, 1));
    test::wait_until([&] { return held.entered.load(); }, "the request is being served");
    std::thread owner([&] {
        client.reset();
        EXPECT_TRUE(held.left);
    });
    held.gate.set_value();
    owner.join();
    EXPECT_THAT(hub.responses(), testing::ElementsAre(ScriptedHub::Response{4, 1, {1}}));
}

TEST(LocalClientLife, WaitsForTheEventHandlerThatRunsOnTheHubsThread) {
    ScriptedHub hub;
    auto client = hub.connect();
    std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
    HeldHandler held;
    client->subscribe("a", [&](auto const&, auto const&, auto) { held(); });
    std::thread receiver([&] {
        if (auto const alive = hubs.lock()) {
            alive->push(event_frame("a"));
        }
    });
    test::wait_until([&] { return held.entered.load(); }, "the event is being handled");
    std::thread owner([&] {
        client.reset();
        EXPECT_TRUE(held.left);
    });
    held.gate.set_value();
    owner.join();
    receiver.join();
}

TEST(LocalClientLife, NoHandlerRunsAfterTheLastPointerWentThoughTheHubStillHasOne) {
    ScriptedHub hub;
    auto client = hub.connect();
    int calls = 0;
    client->subscribe("a", [&](auto const&, auto const&, auto) { ++calls; });
    client->serve(
        "b",
        [&](Bytes const& request) {
            ++calls;
            return request;
        },
        "");
    std::shared_ptr<LocalClient> hubs = client->weak_from_this().lock();
    client.reset();
    hubs->push(event_frame("a"));
    hubs->push(request_frame("b"));
    EXPECT_FALSE(hubs->next_frame(0ms));
    hubs.reset();
    EXPECT_EQ(calls, 0);
}

TEST(LocalClientLife, MayEndWhileItsOwnRequestHandlerPublishesThroughTheHub) {
    // The hub shares in every client while it delivers, here on the worker's own thread.
    for (int round = 0; round < 50; ++round) {
        ScriptedHub hub;
        auto client = hub.connect();
        std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
        std::atomic<bool> sharing{false};
        client->serve(
            "a",
            [&](Bytes const& request) {
                auto const alive = hubs.lock();
                sharing = true;
                std::this_thread::yield();
                return request;
            },
            "");
        client->push(request_frame("a"));
        test::wait_until([&] { return sharing.load(); }, "the handler shares in the client");
        client.reset();
    }
}

TEST(LocalClientLife, AnEventHandlerMayLetTheLastPointerGo) {
    ScriptedHub hub;
    auto client = hub.connect();
    std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
    bool ended = false;
    client->subscribe("a", [&](auto const&, auto const&, auto) {
        client.reset();
        ended = true;
    });
    hubs.lock()->push(event_frame("a"));
    EXPECT_TRUE(ended);
    EXPECT_EQ(hubs.lock(), nullptr);
}

TEST(LocalClientLife, ARequestUnderWayStillGetsItsReplyWhenItsOwnerLetsGo) {
    ScriptedHub hub;
    auto client = hub.connect();
    std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
    std::promise<std::uint32_t> asked;
    hub.answer = [&](ScriptedHub::Request const& request) { asked.set_value(request.msg_id); };
    std::thread asker(
        [&, mine = client] { EXPECT_EQ(mine->request_to(12, "ask", {}, 1h), Bytes{5}); });
    std::uint32_t const msg_id = asked.get_future().get();
    client.reset();
    hubs.lock()->push(response_frame(msg_id, {5}));
    asker.join();
    EXPECT_EQ(hubs.lock(), nullptr);
}

TEST(LocalClientLife, AHandlerThatAsksGetsItsReplyWhileTheClientEnds) {
    ScriptedHub hub;
    auto client = hub.connect();
    std::weak_ptr<LocalClient> const hubs = client->weak_from_this();
    std::promise<std::uint32_t> asked;
    hub.answer = [&](ScriptedHub::Request const& request) { asked.set_value(request.msg_id); };
    LocalClient* const self = client.get();
    client->serve(
        "relay", [self](Bytes const&) { return self->request_to(12, "ask", {}, 1h).value(); }, "");
    client->push(request_frame("relay", {}, 9));
    std::uint32_t const msg_id = asked.get_future().get();
    std::thread owner([&] { client.reset(); });
    auto const alive = hubs.lock();
    ASSERT_TRUE(alive);
    alive->push(response_frame(msg_id, {5}));
    owner.join();
    EXPECT_EQ(hub.responses().at(0), (ScriptedHub::Response{4, 9, {5}}));
}

TEST(LocalClientLife, HandlersAndSubscriptionsComeAndGoFromManyThreads) {
    ScriptedHub hub;
    auto client = hub.connect();
    LocalClient* const self = client.get();
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, mine = client->weak_from_this()] {
            while (auto const alive = mine.lock()) {
                alive->push(event_frame("a"));
                alive->push(request_frame("b"));
                alive->push(event_frame("nobody's"));
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        client->subscribe(i % 2 == 0 ? "a" : "*", [&](auto const&, auto const&, auto) { ++calls; });
        client->serve(
            "b",
            [&](Bytes const& request) {
                self->publish("c", request);
                return request;
            },
            "");
        client->next_frame(0ms);
        client->topics();
    }
    test::wait_until([&] { return calls > 0; }, "events are heard");
    client.reset();
    int const at_the_end = calls;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(calls, at_the_end);
}

} // namespace
} // namespace tessaron::bus
