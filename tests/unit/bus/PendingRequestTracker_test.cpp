#include "bus/PendingRequestTracker.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;

TEST(PendingRequestTracker, ADeliveryWithoutAWaiterIsRefused) {
    PendingRequestTracker pending;
    EXPECT_FALSE(pending.deliver(1, 2, {3}));
}

TEST(PendingRequestTracker, AResponseEndsTheWait) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    std::thread peer([&] { EXPECT_TRUE(pending.deliver(1, 2, {3, 4})); });
    EXPECT_EQ(waiter->wait_for_first(1h), (RequestReply{2, {3, 4}}));
    peer.join();
}

TEST(PendingRequestTracker, AnEmptyReplyIsStillAReply) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    pending.deliver(1, 2, {});
    EXPECT_EQ(waiter->wait_for_first(1h), (RequestReply{2, {}}));
}

TEST(PendingRequestTracker, WithoutAResponseTheWholeTimePassesAndThereIsNoValue) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(waiter->wait_for_first(20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
}

TEST(PendingRequestTracker, EachResponseGoesToItsOwnRequest) {
    PendingRequestTracker pending;
    auto const first = pending.register_waiter(1);
    auto const second = pending.register_waiter(2);
    pending.deliver(2, 9, {2});
    pending.deliver(1, 9, {1});
    EXPECT_EQ(first->wait_for_first(1h), (RequestReply{9, {1}}));
    EXPECT_EQ(second->wait_for_first(1h), (RequestReply{9, {2}}));
}

TEST(PendingRequestTracker, ANodeThatAnswersTwiceCountsOnceWithItsLastAnswer) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    pending.deliver(1, 2, {1});
    pending.deliver(1, 2, {2});
    EXPECT_THAT(waiter->collect(1ms), testing::ElementsAre(RequestReply{2, {2}}));
}

TEST(PendingRequestTracker, CollectingWaitsOutTheTimeAndGivesAllResponses) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    pending.deliver(1, 2, {1});
    auto const begin = std::chrono::steady_clock::now();
    std::thread peer([&] { pending.deliver(1, 3, {2}); });
    auto const replies = waiter->collect(100ms);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 100ms);
    peer.join();
    // Whether the peer's thread ran within the time is not in our hands; the first response is.
    EXPECT_THAT(replies, testing::Contains(RequestReply{2, {1}}));
    EXPECT_THAT(waiter->collect(1ms),
                testing::UnorderedElementsAre(RequestReply{2, {1}}, RequestReply{3, {2}}));
}

TEST(PendingRequestTracker, ALateResponseFindsNothing) {
    PendingRequestTracker pending;
    auto const waiter = pending.register_waiter(1);
    EXPECT_EQ(pending.size(), 1U);
    pending.unregister(1);
    EXPECT_FALSE(pending.deliver(1, 2, {3}));
    EXPECT_EQ(pending.size(), 0U);
    EXPECT_FALSE(waiter->wait_for_first(1ms));
}

TEST(PendingRequestTracker, ClosingEndsEveryWaitWithWhatThereIs) {
    PendingRequestTracker pending;
    auto const none = pending.register_waiter(1);
    auto const some = pending.register_waiter(2);
    pending.deliver(2, 9, {1});
    std::thread first([&] { EXPECT_FALSE(none->wait_for_first(1h)); });
    std::thread all([&] {
        EXPECT_THAT(some->collect(1h), testing::ElementsAre(RequestReply{9, {1}}));
    });
    std::thread more([&] {
        auto const deadline = std::chrono::steady_clock::now() + 1h;
        EXPECT_THAT(some->collect_more_than(1, deadline), testing::SizeIs(1));
    });
    pending.close();
    first.join();
    all.join();
    more.join();
}

TEST(PendingRequestTracker, OnceClosedNobodyWaitsAnyMore) {
    PendingRequestTracker pending;
    pending.close();
    auto const waiter = pending.register_waiter(1);
    EXPECT_FALSE(waiter->wait_for_first(1h));
    EXPECT_THAT(waiter->collect(1h), testing::IsEmpty());
    EXPECT_TRUE(pending.deliver(1, 2, {3})) << "who waited may still be looking";
    EXPECT_EQ(waiter->wait_for_first(1h), (RequestReply{2, {3}}));
    pending.close();
    pending.unregister(1);
    EXPECT_EQ(pending.size(), 0U);
}

} // namespace
} // namespace tessaron::bus
