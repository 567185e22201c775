#include "package/InheritedChildren.hpp"

#include "tests/support/wait_until.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tessaron {
namespace {

pid_t start_sleeping_child() {
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::execlp("sleep", "sleep", "1000", nullptr);
        ::_exit(127);
    }
    return pid;
}

bool is_child(pid_t pid) {
    siginfo_t state{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0;
}

TEST(InheritedChildren, AreReapedOnceTheyHaveEnded) {
    pid_t const child = start_sleeping_child();
    InheritedChildren inherited = InheritedChildren::of_this_process();
    inherited.reap_ended();
    EXPECT_FALSE(inherited.empty());
    EXPECT_EQ(::kill(child, 0), 0) << "it is left running";
    ::kill(child, SIGKILL);
    test::wait_until(
        [&inherited] {
            inherited.reap_ended();
            return inherited.empty();
        },
        "the child is reaped");
    EXPECT_FALSE(is_child(child));
}

TEST(InheritedChildren, AChildOfAnotherThreadCountsToo) {
    pid_t child = 0;
    std::thread([&child] { child = start_sleeping_child(); }).join();
    InheritedChildren inherited = InheritedChildren::of_this_process();
    EXPECT_FALSE(inherited.empty());
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    inherited.reap_ended();
    EXPECT_TRUE(inherited.empty());
}

TEST(InheritedChildren, AChildThatComesLaterIsNotTouched) {
    InheritedChildren inherited = InheritedChildren::of_this_process();
    EXPECT_TRUE(inherited.empty());
    pid_t const child = start_sleeping_child();
    ::kill(child, SIGKILL);
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    inherited.reap_ended();
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

} // namespace
} // namespace tessaron
