#include "package/spawn_package.hpp"

#include "package/child_process.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron {
namespace {

TEST(SpawnPackage, AProgramThatCannotRunExitsWith127) {
    PackageProgram const no_program{"/no/such/program", {}, "/"};
    PackageProgram const no_directory{"/bin/true", {}, "/no/such/directory"};
    PackageProgram const not_executable{"/etc/hostname", {}, "/"};
    for (PackageProgram const& program : {no_program, no_directory, not_executable}) {
        pid_t const pid = spawn_package(program);
        ASSERT_GT(pid, 0);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 127);
    }
}

TEST(SpawnPackage, LeavesTheCallersSignalMaskAsItWas) {
    sigset_t before;
    sigset_t after;
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, &before);
    child_process::wait_for_end(spawn_package({"/bin/true", {}, "/"}));
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST(SpawnPackage, AStopSentBeforeTheProgramRunsIsNotSwallowed) {
    // As in a daemon: the signal has a handler here, which must not catch it in the child.
    struct sigaction handled = {};
    struct sigaction before = {};
    handled.sa_handler = [](int) {};
    sigaction(SIGTERM, &handled, &before);
    for (int i = 0; i < 200; ++i) {
        pid_t const pid = spawn_package({"/bin/sleep", {"5"}, "/"});
        kill(pid, SIGTERM);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "it slept to its end";
        ASSERT_EQ(WTERMSIG(status), SIGTERM);
    }
    sigaction(SIGTERM, &before, nullptr);
}

} // namespace
} // namespace tessaron
