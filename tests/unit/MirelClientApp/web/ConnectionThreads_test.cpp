#include "MirelClientApp/web/ConnectionThreads.hpp"

#include "LoopbackClient.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

using mirelclient::ConnectionThreads;
using mirelclient::test::thread_count;
using tessaron::UniqueFd;
using tessaron::test::wait_until;

namespace {

std::vector<UniqueFd> connections(std::size_t count) {
    std::vector<UniqueFd> result;
    for (std::size_t i = 0; i < count; ++i) {
        result.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    return result;
}

void run(ConnectionThreads& threads, std::size_t count) {
    std::vector<UniqueFd> batch = connections(count);
    threads.run(batch);
    EXPECT_TRUE(batch.empty());
}

/// Jobs that stay until they are told to leave. The threads are detached and may look at the state
/// for a moment longer than the test lives, so they share it.
class BlockingJobs {
public:
    ConnectionThreads::Job job() {
        return [state = state_](UniqueFd const&) {
            ++state->entered;
            state->leave.wait(false);
        };
    }
    std::size_t entered() const { return state_->entered; }
    void release() {
        state_->leave = true;
        state_->leave.notify_all();
    }

private:
    struct State {
        std::atomic<std::size_t> entered = 0;
        std::atomic<bool> leave = false;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// How often a job ran, counted by whoever is left.
using Count = std::shared_ptr<std::atomic<std::size_t>>;

Count make_count() {
    return std::make_shared<std::atomic<std::size_t>>(0);
}

} // namespace

TEST(ConnectionThreads, EveryConnectionGetsAThreadWhileAllOthersAreBusy) {
    std::size_t const before = thread_count();
    BlockingJobs jobs;
    {
        ConnectionThreads threads(jobs.job());
        run(threads, 60);
        run(threads, 1);
        wait_until([&] { return jobs.entered() == 61; }, "all 61 connections are served at once");
        jobs.release();
    }
    wait_until([&] { return thread_count() <= before; }, "the threads are gone");
}

TEST(ConnectionThreads, AThreadThatIsDoneServesTheNextConnection) {
    std::size_t const before = thread_count();
    Count const served = make_count();
    ConnectionThreads threads([served](UniqueFd const&) { ++*served; });
    for (std::size_t i = 1; i <= 200; ++i) {
        run(threads, 1);
        wait_until([&] { return *served == i; }, "the connection is served");
    }
    EXPECT_LT(thread_count(), before + 20);
}

TEST(ConnectionThreads, AWaitingThreadLeavesAfterItsTime) {
    std::size_t const before = thread_count();
    Count const served = make_count();
    ConnectionThreads threads([served](UniqueFd const&) { ++*served; },
                              std::chrono::milliseconds(1));
    run(threads, 5);
    wait_until([&] { return *served == 5 && thread_count() <= before; }, "the threads have left");
    run(threads, 1);
    wait_until([&] { return *served == 6; }, "a new thread serves the next connection");
}

TEST(ConnectionThreads, NoMoreThanTheLimitWait) {
    std::size_t const before = thread_count();
    BlockingJobs jobs;
    {
        ConnectionThreads threads(jobs.job(), std::chrono::hours(1));
        std::size_t const crowd = ConnectionThreads::K_MAX_IDLE + 40;
        run(threads, crowd);
        wait_until([&] { return jobs.entered() == crowd; }, "all are served at once");
        jobs.release();
        wait_until([&] { return thread_count() <= before + ConnectionThreads::K_MAX_IDLE; },
                   "those beyond the limit have left");
    }
    wait_until([&] { return thread_count() <= before; }, "the destructor has sent all home");
}

TEST(ConnectionThreads, TheDescriptorIsClosedBehindTheJob) {
    std::size_t const before = mirelclient::test::descriptor_count();
    Count const open = make_count();
    ConnectionThreads threads([open](UniqueFd const& fd) { *open += fd.is_open() ? 1 : 0; });
    run(threads, 10);
    wait_until([&] { return *open == 10 && mirelclient::test::descriptor_count() == before; },
               "ten open descriptors were closed again");
}
