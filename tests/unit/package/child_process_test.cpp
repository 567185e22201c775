#include "package/child_process.hpp"

#include "package/spawn_package.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tessaron {
namespace {

using child_process::has_ended;
using child_process::send_signal;
using child_process::wait_for_end;

pid_t spawn_sleeper() {
    return spawn_package({"/bin/sleep", {"1000"}, "/"});
}

TEST(ChildProcess, HasNotEndedWhileItRunsAndIsReapedOnceItHas) {
    pid_t const pid = spawn_sleeper();
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(has_ended(pid));
    send_signal(pid, SIGKILL);
    test::wait_until([&] { return has_ended(pid); }, "the end is seen");
    EXPECT_EQ(waitpid(pid, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ChildProcess, AnotherProcessesChildHasEnded) {
    EXPECT_TRUE(has_ended(getppid()));
    wait_for_end(getppid());
}

TEST(ChildProcess, NoIdBelowOneIsEverSignalledOrWaitedFor) {
    pid_t const pid = spawn_sleeper();
    for (pid_t const none : {0, -1, -pid}) {
        send_signal(none, SIGKILL); // 0 and -1 would end this test
        EXPECT_TRUE(has_ended(none));
        wait_for_end(none);
    }
    EXPECT_FALSE(has_ended(pid));
    send_signal(pid, SIGKILL);
    wait_for_end(pid);
}

TEST(ChildProcess, ASignalDoesNotInterruptTheWait) {
    static std::atomic<int> interruptions;
    interruptions = 0;
    struct sigaction count = {};
    struct sigaction before = {};
    count.sa_handler = [](int) { ++interruptions; }; // without SA_RESTART
    sigaction(SIGUSR1, &count, &before);

    pid_t const pid = spawn_sleeper();
    std::atomic<bool> returned = false;
    std::thread waiter([&] {
        wait_for_end(pid);
        returned = true;
    });
    test::wait_until(
        [&] {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            return interruptions >= 10;
        },
        "the wait was interrupted");
    EXPECT_FALSE(returned);
    send_signal(pid, SIGKILL);
    waiter.join();
    EXPECT_TRUE(has_ended(pid));
    sigaction(SIGUSR1, &before, nullptr);
}

} // namespace
} // namespace tessaron
