#include "bus/RequestWorker.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

namespace tessaron::bus {
namespace {

RequestTask task(std::uint32_t msg_id, std::size_t size = 0) {
    RequestTask task;
    task.msg_id = msg_id;
    task.payload.resize(size);
    return task;
}

/// A worker whose tasks wait until they are let go.
struct HeldWorker {
    ~HeldWorker() { let_go(); }

    void let_go() {
        if (!gone) {
            gone = true;
            gate.set_value();
        }
    }
    /// Returns when the worker is within a task, so that all further ones must queue.
    void occupy() {
        worker.push(task(0));
        test::wait_until([this] { return started == 1; }, "the worker is busy");
    }

    bool gone = false;
    std::promise<void> gate;
    std::shared_future<void> opened{gate.get_future()};
    std::atomic<int> started{0};
    RequestWorker worker{"test-worker", [this](RequestTask const&) {
                             ++started;
                             opened.wait();
                         }};
};

TEST(RequestWorker, RunsTasksInTheirOrderOnOneThreadOfItsOwn) {
    std::promise<void> done;
    std::vector<std::uint32_t> order;
    std::vector<std::thread::id> threads;
    std::string name(16, '\0');
    RequestWorker worker("test-worker", [&](RequestTask const& task) {
        order.push_back(task.msg_id);
        threads.push_back(std::this_thread::get_id());
        if (task.msg_id == 3) {
            pthread_getname_np(pthread_self(), name.data(), name.size());
            done.set_value();
        }
    });
    for (std::uint32_t id = 1; id <= 3; ++id) {
        EXPECT_TRUE(worker.push(task(id)));
    }
    done.get_future().wait();
    EXPECT_THAT(order, testing::ElementsAre(1, 2, 3));
    EXPECT_THAT(threads, testing::Each(threads[0]));
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_STREQ(name.c_str(), "test-worker");
}

TEST(RequestWorker, AFullQueueTakesNoMore) {
    HeldWorker held;
    held.occupy();
    for (std::size_t i = 0; i < RequestWorker::K_MAX_TASKS; ++i) {
        ASSERT_TRUE(held.worker.push(task(1)));
    }
    EXPECT_FALSE(held.worker.push(task(1)));
    held.let_go();
    test::wait_until([&] { return held.started == 1 + RequestWorker::K_MAX_TASKS; },
                     "all that were taken have run");
    EXPECT_TRUE(held.worker.push(task(1)));
}

TEST(RequestWorker, AQueueFullOfBytesTakesNoMore) {
    HeldWorker held;
    held.occupy();
    std::size_t const half = RequestWorker::K_MAX_QUEUED_BYTES / 2;
    EXPECT_TRUE(held.worker.push(task(1, half)));
    EXPECT_TRUE(held.worker.push(task(1, half)));
    EXPECT_FALSE(held.worker.push(task(1, 1)));
    EXPECT_TRUE(held.worker.push(task(1, 0)));
    held.let_go();
    test::wait_until([&] { return held.started == 4; }, "all that were taken have run");
    EXPECT_TRUE(held.worker.push(task(1, half)));
}

TEST(RequestWorker, StopWaitsForTheTaskThatRunsAndDropsThoseThatWait) {
    std::atomic<bool> started{false};
    std::atomic<int> ended{0};
    std::promise<void> gate;
    RequestWorker worker("test-worker", [&](RequestTask const&) {
        started = true;
        gate.get_future().wait();
        ++ended;
    });
    worker.push(task(1));
    worker.push(task(2));
    test::wait_until([&] { return started.load(); }, "the first task runs");
    std::thread stopper([&] { worker.stop(); });
    // A task is refused once the stop has begun, and the first has still not ended.
    test::wait_until([&] { return !worker.push(task(3)); }, "the worker is being stopped");
    EXPECT_EQ(ended, 0);
    gate.set_value();
    stopper.join();
    EXPECT_EQ(ended, 1);
    worker.stop();
}

TEST(RequestWorker, ATaskMayPushAnother) {
    std::promise<void> done;
    RequestWorker* self = nullptr;
    RequestWorker worker("test-worker", [&](RequestTask const& running) {
        if (running.msg_id == 1) {
            self->push(task(2));
        } else {
            done.set_value();
        }
    });
    self = &worker;
    worker.push(task(1));
    done.get_future().wait();
}

TEST(RequestWorker, WhatIsPushedQuietlyRunsOnTheThreadThatCallsWork) {
    std::vector<std::thread::id> threads;
    RequestWorker worker(
        "test-worker", [&](RequestTask const&) { threads.push_back(std::this_thread::get_id()); });
    EXPECT_TRUE(worker.push_quietly(task(1)));
    EXPECT_TRUE(worker.push_quietly(task(2)));
    worker.work();
    worker.work();
    EXPECT_THAT(threads,
                testing::ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST(RequestWorker, WhatIsPushedQuietlyRunsOnItsThreadAfterAWake) {
    std::promise<std::thread::id> ran_on;
    RequestWorker worker("test-worker",
                         [&](RequestTask const&) { ran_on.set_value(std::this_thread::get_id()); });
    worker.wake();
    worker.push_quietly(task(1));
    worker.wake();
    EXPECT_NE(ran_on.get_future().get(), std::this_thread::get_id());
}

TEST(RequestWorker, WhoWorksWhileATaskRunsLeavesTheOthersToIt) {
    HeldWorker held;
    held.occupy();
    held.worker.push_quietly(task(1));
    held.worker.work();
    EXPECT_EQ(held.started, 1) << "one task at a time";
    held.let_go();
    EXPECT_TRUE(test::wait_until([&] { return held.started == 2; }, "the second one runs, too"));
}

TEST(RequestWorker, StopWaitsForTheTaskOfAThreadThatCalledWork) {
    std::promise<void> gate;
    std::atomic<bool> started{false};
    std::atomic<int> ended{0};
    RequestWorker worker("test-worker", [&](RequestTask const&) {
        started = true;
        gate.get_future().wait();
        ++ended;
    });
    worker.push_quietly(task(1));
    worker.push_quietly(task(2));
    std::thread helper([&] { worker.work(); });
    test::wait_until([&] { return started.load(); }, "the first task runs");
    std::thread stopper([&] {
        worker.stop();
        EXPECT_EQ(ended, 1);
    });
    test::wait_until([&] { return !worker.push_quietly(task(3)); }, "the worker is being stopped");
    EXPECT_EQ(ended, 0);
    gate.set_value();
    stopper.join();
    helper.join();
    worker.work();
    EXPECT_EQ(ended, 1) << "what waited is dropped";
}

} // namespace
} // namespace tessaron::bus
