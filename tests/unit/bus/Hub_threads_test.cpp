#include "tests/support/bus_nodes.hpp"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

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

using std::chrono::milliseconds;

struct HubThreads : testing::Test {
    HubThreads() {
        first.join();
        second.join();
        client = first.hub.connect(500, proto::bus::make_identity("client", "hub-test", 1));
        second.hub.serve(
            "echo", [](Bytes const& payload) { return payload; }, "");
    }

    /// A subscription that is still under way brings what is published meanwhile a second time, as
    /// what is retained. Frames are heard in order, so an answer tells that it has arrived.
    void second_has_heard_the_subscriptions() {
        ASSERT_TRUE(first.hub.request("echo", {}, K_LONG));
    }

    /// What a handler on any thread may do. Returns whether the request was answered.
    bool do_everything(std::string const& name, milliseconds timeout) {
        first.hub.subscribe(
            "later." + name, [](Envelope const&) {}, "");
        first.hub.on_request(
            "later." + name,
            [](std::string const&, Bytes const&, std::uint32_t) { return Bytes(); }, "");
        first.hub.advertise("offered." + name, "", proto::bus::TopicKind::EVENT);
        first.hub.publish("said." + name, {});
        client->subscribe("later." + name, [](std::string const&, Bytes const&, std::uint32_t) {});
        client->publish("said by client." + name, Bytes());
        first.hub.discover();
        first.hub.build_report();
        return first.hub.request("echo", {}, timeout).has_value();
    }

    LoopbackBus bus;
    HubNode first{bus, 200, "first"};
    HubNode second{bus, 201, "second"};
    std::shared_ptr<LocalClient> client;
};

TEST_F(HubThreads, HandlersOfEveryKindMayDoEverything) {
    Collected<std::string> const heard;
    for (char const* const name : {"event", "request", "client event", "client request"}) {
        second.hub.subscribe(
            std::string("said.") + name, [heard, name](Envelope const&) { heard.add(name); }, "");
    }
    Collected<std::pair<std::string, bool>> const answered;
    first.hub.subscribe(
        "go",
        [this, answered](Envelope const&) {
            answered.add({"event", do_everything("event", milliseconds(1))});
        },
        "");
    first.hub.serve(
        "go",
        [this, answered](Bytes const&) {
            answered.add({"request", do_everything("request", K_LONG)});
            return Bytes();
        },
        "");
    client->subscribe("go", [this, answered](std::string const&, Bytes const&, std::uint32_t) {
        answered.add({"client event", do_everything("client event", milliseconds(1))});
    });
    client->serve(
        "go",
        [this, answered](Bytes const&) {
            answered.add({"client request", do_everything("client request", K_LONG)});
            return Bytes();
        },
        "");
    second_has_heard_the_subscriptions();
    second.hub.publish("go", {});
    ASSERT_TRUE(answered.wait_for(2, "the event handlers have returned"));
    ASSERT_TRUE(second.hub.request("go", {}, K_LONG));
    ASSERT_TRUE(answered.wait_for(4, "the request handlers have returned"));
    for (auto const& [name, was_answered] : answered.all()) {
        EXPECT_EQ(was_answered, name == "request" || name == "client request") << name;
    }
    EXPECT_TRUE(heard.wait_for(4, "all that was published has been heard"));
}

TEST_F(HubThreads, ManyThreadsPublishAskAndSubscribeAtOnce) {
    constexpr std::size_t K_THREADS = 4;
    constexpr std::size_t K_ROUNDS = 25;
    std::atomic<std::size_t> heard{0};
    for (std::size_t i = 0; i < K_THREADS; ++i) {
        second.hub.subscribe_pattern(
            "said." + std::to_string(i),
            [&](std::string const&, Bytes const&, Origin const&) { ++heard; }, "");
    }
    std::vector<std::thread> threads;
    std::atomic<std::size_t> answers{0};
    for (std::size_t i = 0; i < K_THREADS; ++i) {
        threads.emplace_back([&, i] {
            std::string const name = std::to_string(i);
            for (std::size_t round = 0; round < K_ROUNDS; ++round) {
                first.hub.publish_event("said." + name, test::pattern_bytes(round * 1000));
                auto const payload = test::pattern_bytes(5000, static_cast<unsigned>(round));
                answers += first.hub.request("echo", payload, K_LONG) == payload ? 1u : 0u;
                first.hub.subscribe(
                    "topic." + name, [](Envelope const&) {}, "");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answers, K_THREADS * K_ROUNDS);
    EXPECT_TRUE(test::wait_until([&] { return heard == K_THREADS * K_ROUNDS; },
                                 "all that was published has been heard"));
}

TEST_F(HubThreads, AHubEndsWhileRequestsWaitAndAHandlerRuns) {
    RawNode peer(bus, 9);
    peer.join();
    std::promise<void> running;
    std::promise<void> released;
    std::atomic<int> served{0};
    auto ending = std::make_unique<HubNode>(bus, 300, "ending");
    ending->join();
    ending->hub.serve(
        "slow",
        [&](Bytes const&) {
            if (++served == 1) {
                running.set_value();
                released.get_future().wait();
            }
            return Bytes();
        },
        "");
    for (std::uint32_t i = 1; i <= 20; ++i) {
        peer.send(MessageType::REQUEST, 300, {}, "slow", i);
    }
    running.get_future().wait();
    std::thread end([&] { ending.reset(); });
    released.set_value();
    end.join();
    // What waited was dropped, or served before the end; nothing runs any more.
    int const at_end = served;
    peer.send(MessageType::REQUEST, 300, {}, "slow", 99);
    bus.wait_until_delivered();
    EXPECT_EQ(served, at_end);
}

TEST_F(HubThreads, AHubEndsUnderTraffic) {
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
        std::uint32_t round = 0;
        while (!stop) {
            first.hub.publish_event("said", test::pattern_bytes(++round % 9000));
            first.hub.request("short", {}, milliseconds(1));
        }
    });
    for (std::uint32_t i = 0; i < 10; ++i) {
        Collected<Bytes> heard;
        HubNode passing(bus, 300 + i, "passing");
        passing.hub.subscribe_pattern(
            "said",
            [heard](std::string const&, Bytes const& payload, Origin const&) {
                heard.add(payload);
            },
            "");
        passing.hub.serve(
            "short",
            [&](Bytes const& payload) {
                passing.hub.publish("served", {});
                return payload;
            },
            "");
        auto const guest =
            passing.hub.connect(600 + i, proto::bus::make_identity("guest", "hub-test", 1));
        guest->subscribe("said*", [](std::string const&, Bytes const&, std::uint32_t) {});
        passing.join();
        heard.wait_for(3, "events have come");
    }
    stop = true;
    traffic.join();
}

TEST_F(HubThreads, TheWarningSinkMayBeReplacedWhileItIsUsed) {
    first.hub.subscribe(
        "bad", [](Envelope const&) { throw std::runtime_error("bad"); }, "");
    second_has_heard_the_subscriptions();
    constexpr int K_EVENTS = 200;
    std::atomic<int> warnings{0};
    auto const all_warnings = [&] { return warnings + static_cast<int>(first.warnings.size()); };
    std::thread publisher([&] {
        for (int i = 0; i < K_EVENTS; ++i) {
            // Never more under way than the queue of a slow node holds.
            test::wait_until([&] { return i - all_warnings() < 50; }, "there is room");
            second.hub.publish("bad", {});
        }
    });
    for (int i = 0; i < K_EVENTS; ++i) {
        first.hub.set_warning_sink([&](std::string const&) { ++warnings; });
    }
    publisher.join();
    EXPECT_TRUE(test::wait_until([&] { return all_warnings() == K_EVENTS; },
                                 "every event has cost one warning"));
}

} // namespace
} // namespace tessaron::bus
