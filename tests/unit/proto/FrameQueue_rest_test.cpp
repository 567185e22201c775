#include "proto/FrameQueue.hpp"

#include "tests/support/wait_until.hpp"
#include "tests/unit/proto/Gate.hpp"
#include "tests/unit/proto/Received.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace proto::test {

namespace {

using tessaron::test::wait_until;

/// What was left to do, and on which thread it might take long.
struct Rests {
    Queue::Rest rest() {
        return [this](bool may_take_long) {
            if (may_take_long) {
                long_on = std::this_thread::get_id();
            }
            ++(may_take_long ? long_ones : short_ones);
        };
    }

    std::atomic<int> long_ones{0};
    std::atomic<int> short_ones{0};
    std::thread::id long_on;
};

/// Hands the queue a frame and works, until this thread is the one that got it: the worker, which
/// is not told of it, may be looking by itself just then.
template <typename IsDone>
void work_until(Queue& queue, IsDone const& is_done) {
    EXPECT_TRUE(wait_until(
        [&] {
            queue.push(1, true);
            queue.work();
            return is_done();
        },
        "this thread has worked"));
}

TEST(FrameQueue, WhoWorksDoesWhatTheHandlerHasLeft) {
    Rests rests;
    Received received;
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD, rests.rest());
    work_until(queue, [&] { return rests.long_ones > 0; });
    EXPECT_EQ(rests.long_ones, 1);
    EXPECT_EQ(rests.long_on, std::this_thread::get_id());
}

TEST(FrameQueue, TheWorkerDoesItQuickly) {
    Rests rests;
    Received received;
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD, rests.rest());
    queue.push(1);
    EXPECT_TRUE(wait_until([&] { return rests.short_ones == 1; }, "the rest is done"));
    EXPECT_EQ(rests.long_ones, 0);
}

TEST(FrameQueue, WhatIsLeftDoesNotWaitForALull) {
    constexpr int K_FRAMES = 3;
    Rests rests;
    Queue queue;
    queue.set_handler(
        [&](int&& frame) {
            if (frame < K_FRAMES) {
                queue.push(frame + 1, true); // Always one more.
            }
            EXPECT_EQ(rests.short_ones, frame - 1);
        },
        HandlerPace::TOLD, rests.rest());
    queue.push(1, true);
    queue.work();
    EXPECT_TRUE(wait_until([&] { return rests.short_ones + rests.long_ones == K_FRAMES; },
                           "it is done after each frame"));
}

TEST(FrameQueue, OthersHandleFramesWhileWhatIsLeftTakesLong) {
    Gate gate;
    Received received;
    std::atomic<bool> let_go{false};
    Queue queue;
    queue.set_handler(received.handler(), HandlerPace::TOLD, [&](bool may_take_long) {
        if (may_take_long) {
            gate.pass();
            let_go = true;
        }
    });
    std::thread helper([&] { work_until(queue, [&] { return let_go.load(); }); });
    gate.wait_for_visitor();
    std::size_t const before = received.count();
    queue.push(2);
    EXPECT_TRUE(received.wait_for(before + 1));
    EXPECT_FALSE(let_go);
    gate.open();
    helper.join();
}

TEST(FrameQueue, StopWaitsForWhatIsLeft) {
    Gate gate;
    std::atomic<bool> let_go{false};
    Queue queue;
    queue.set_handler([](int&&) {}, HandlerPace::TOLD,
                      [&](bool may_take_long) {
                          if (may_take_long) {
                              gate.pass();
                              let_go = true;
                          }
                      });
    std::thread helper([&] { work_until(queue, [&] { return let_go.load(); }); });
    gate.wait_for_visitor();
    std::thread stopper([&] {
        queue.stop();
        EXPECT_TRUE(let_go);
    });
    gate.open();
    stopper.join();
    helper.join();
}

} // namespace

} // namespace proto::test
