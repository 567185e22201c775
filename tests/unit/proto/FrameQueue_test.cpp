#include "proto/FrameQueue.hpp"

#include "tests/support/wait_until.hpp"
#include "tests/unit/proto/Gate.hpp"
#include "tests/unit/proto/Received.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <numeric>
#include <thread>
#include <vector>

namespace proto::test {

namespace {

using tessaron::test::wait_until;

/// A queue whose worker is held up in the handler by frame 0.
class BlockedQueue {
public:
    explicit BlockedQueue(HandlerPace pace = HandlerPace::UNKNOWN) {
        queue.set_handler(
            [this, note = received.handler()](int&& frame) {
                gate.pass();
                note(std::move(frame));
            },
            pace);
        queue.push(0);
        gate.wait_for_visitor();
    }

    Gate gate;
    Received received;
    Queue queue;
};

std::vector<int> range(int first, int last) {
    std::vector<int> numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

/// Pushes 1 to 1000.
std::thread reader_of_a_thousand(Queue& queue) {
    return std::thread([&queue] {
        for (int i = 1; i <= 1000; ++i) {
            queue.push(int{i});
        }
    });
}

TEST(FrameQueue, ABurstWithAQuickHandlerLosesNothing) {
    Received received;
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD);
    for (int i = 0; i < 10'000; ++i) {
        queue.push(int{i});
    }
    ASSERT_TRUE(received.wait_for(10'000));
    EXPECT_EQ(received.frames(), range(0, 9'999));
}

TEST(FrameQueue, AWorkerThatHasNotRunYetLosesNothing) {
    for (int round = 0; round < 100; ++round) {
        Received received;
        Queue queue;
        queue.set_handler(received.handler());
        // One more than it holds, and none so far: the worker is at most about to take the first.
        for (int i = 0; i <= static_cast<int>(Queue::K_MAX_QUEUE); ++i) {
            queue.push(int{i});
        }
        ASSERT_TRUE(received.wait_for(101));
        EXPECT_EQ(received.frames(), range(0, 100));
    }
}

TEST(FrameQueue, FramesWithMoreToComeAreDeliveredWhenTheWorkerIsWoken) {
    Received received;
    Queue queue;
    queue.set_handler(received.handler());
    for (int round = 0; round < 100; ++round) {
        queue.push(2 * round, true);
        queue.push(2 * round + 1, true);
        queue.wake();
        ASSERT_TRUE(received.wait_for(static_cast<std::size_t>(2 * round + 2)));
    }
    EXPECT_EQ(received.frames(), range(0, 199));
}

TEST(FrameQueue, MoreThanItHoldsWithMoreToComeLosesNothing) {
    Received received;
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD);
    for (int i = 0; i < 10'000; ++i) {
        queue.push(int{i}, true);
    }
    queue.wake();
    ASSERT_TRUE(received.wait_for(10'000));
    EXPECT_EQ(received.frames(), range(0, 9'999));
}

TEST(FrameQueue, With101QueuedAndTheWorkerBlockedTheOldestIsGoneAndTheNewestThere) {
    BlockedQueue blocked;
    for (int i = 1; i <= 101; ++i) {
        blocked.queue.push(int{i});
    }
    blocked.gate.open();
    ASSERT_TRUE(blocked.received.wait_for(101));
    std::vector<int> expected = range(2, 101);
    expected.insert(expected.begin(), 0);
    EXPECT_EQ(blocked.received.frames(), expected);
}

TEST(FrameQueue, ASlowPartThatHasOnlyJustBegunLosesNothing) {
    Gate gate;
    Received received;
    Queue queue(std::chrono::hours(1)); // As if no time passed.
    queue.set_handler(
        [&, note = received.handler()](int&& frame) {
            queue.begin_slow();
            gate.pass();
            queue.end_slow();
            note(std::move(frame));
        },
        HandlerPace::TOLD);
    queue.push(0);
    gate.wait_for_visitor();
    std::thread reader = reader_of_a_thousand(queue);
    gate.open();
    reader.join();
    ASSERT_TRUE(received.wait_for(1001));
    EXPECT_EQ(received.frames(), range(0, 1000));
}

TEST(FrameQueue, AStopLetsAReaderGoThatGivesWayToASlowPart) {
    Gate gate;
    Queue queue(std::chrono::hours(1));
    queue.set_handler([&](int&&) { gate.pass(); });
    queue.push(0);
    gate.wait_for_visitor();
    std::thread reader = reader_of_a_thousand(queue);
    queue.request_stop();
    reader.join(); // The gate is still closed.
    gate.open();
}

TEST(FrameQueue, ABlockedHandlerDoesNotHoldUpTheReader) {
    BlockedQueue blocked;
    for (int i = 0; i < 10'000; ++i) {
        blocked.queue.push(int{i}); // If this waited for the handler, nobody would open the gate.
    }
    blocked.gate.open();
}

TEST(FrameQueue, AHandlerThatIsSlowWhereItSaysSoDoesNotHoldUpTheReader) {
    Gate gate;
    Queue queue;
    queue.set_handler(
        [&](int&&) {
            queue.begin_slow();
            queue.begin_slow();
            queue.end_slow(); // The outer one goes on.
            gate.pass();
            queue.end_slow();
        },
        HandlerPace::TOLD);
    queue.push(0);
    gate.wait_for_visitor();
    for (int i = 0; i < 10'000; ++i) {
        queue.push(int{i});
    }
    gate.open();
}

TEST(FrameQueue, AReaderThatGivesWayGoesOnWhenTheHandlerGetsSlow) {
    Gate quick;
    Gate slow;
    Queue queue;
    queue.set_handler(
        [&](int&&) {
            quick.pass();
            queue.begin_slow();
            slow.pass();
            queue.end_slow();
        },
        HandlerPace::TOLD);
    queue.push(0);
    quick.wait_for_visitor();
    std::atomic<int> pushed{0};
    std::thread reader([&] {
        for (int i = 0; i < 1000; ++i) {
            queue.push(int{i});
            ++pushed;
        }
    });
    EXPECT_TRUE(wait_until([&] { return pushed == 100; }, "the queue is full"));
    quick.open();
    reader.join();
    slow.open();
}

TEST(FrameQueue, OtherThreadsThanTheWorkerAreNeverSlow) {
    Received received;
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD);
    queue.begin_slow();
    for (int i = 0; i < 10'000; ++i) {
        queue.push(int{i});
    }
    queue.end_slow();
    EXPECT_TRUE(received.wait_for(10'000));
}

TEST(FrameQueue, AStopFreesAReaderThatGivesWay) {
    BlockedQueue blocked(HandlerPace::TOLD);
    std::thread reader([&blocked] {
        for (int i = 0; i < 1000; ++i) {
            blocked.queue.push(int{i});
        }
    });
    blocked.queue.request_stop();
    reader.join();
    blocked.gate.open();
}

TEST(FrameQueue, WhatTheWorkerHasNotTakenAtTheStopIsNotDelivered) {
    BlockedQueue blocked;
    blocked.queue.push(1);
    blocked.queue.request_stop();
    blocked.gate.open();
    blocked.queue.stop();
    blocked.queue.stop(); // A second one finds nothing to do.
    EXPECT_EQ(blocked.received.frames(), std::vector<int>{0});
}

TEST(FrameQueue, WhoeverWorksCallsTheHandlerOnItsOwnThread) {
    std::vector<std::thread::id> callers;
    Queue queue;
    queue.set_handler([&](int&&) { callers.push_back(std::this_thread::get_id()); });
    queue.push(1, true);
    queue.push(2, true);
    queue.work();
    EXPECT_EQ(callers, std::vector(2, std::this_thread::get_id()));
}

TEST(FrameQueue, WhatComesWhileOneWorksIsLeftToIt) {
    BlockedQueue blocked;
    blocked.queue.push(1, true);
    blocked.queue.work(); // If this called the handler, nobody would open the gate.
    blocked.queue.push(2);
    blocked.gate.open();
    ASSERT_TRUE(blocked.received.wait_for(3));
    EXPECT_EQ(blocked.received.frames(), range(0, 2));
}

TEST(FrameQueue, TheWorkerTakesWhatNoOtherDoes) {
    Received received;
    Queue queue;
    queue.set_handler(received.handler());
    for (int round = 0; round < 1000; ++round) {
        queue.push(2 * round, true);
        queue.work();
        queue.push(2 * round + 1);
    }
    ASSERT_TRUE(received.wait_for(2000));
    EXPECT_EQ(received.frames(), range(0, 1999));
}

TEST(FrameQueue, AnotherThreadThatWorksMayBeSlow) {
    Gate gate;
    Queue queue;
    queue.set_handler(
        [&](int&&) {
            queue.begin_slow();
            gate.pass();
            queue.end_slow();
        },
        HandlerPace::TOLD);
    queue.push(0, true);
    std::thread helper([&] { queue.work(); });
    gate.wait_for_visitor();
    for (int i = 0; i < 10'000; ++i) {
        queue.push(int{i});
    }
    gate.open();
    helper.join();
}

TEST(FrameQueue, AStopWaitsForAnotherThreadThatWorks) {
    Gate gate;
    Received received;
    Queue queue;
    queue.set_handler([&, note = received.handler()](int&& frame) {
        gate.pass();
        note(std::move(frame));
    });
    queue.push(0, true);
    std::thread helper([&] { queue.work(); });
    gate.wait_for_visitor();
    queue.push(1, true);
    queue.request_stop();
    gate.open();
    queue.stop();
    EXPECT_EQ(received.frames(), std::vector<int>{0});
    queue.work(); // There is nothing more to do.
    helper.join();
    EXPECT_EQ(received.frames(), std::vector<int>{0});
}

TEST(FrameQueue, WithoutAHandlerFramesAreDropped) {
    Received received;
    Queue queue;
    for (int i = 0; i < 1000; ++i) {
        queue.push(int{i});
    }
    queue.set_handler(received.handler());
    ASSERT_TRUE(wait_until(
        [&] {
            queue.push(-1);
            return received.count() > 0;
        },
        "the handler is in force"));
}

} // namespace

} // namespace proto::test
