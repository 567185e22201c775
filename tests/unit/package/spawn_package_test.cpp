#include "package/spawn_package.hpp"

#include "package/child_process.hpp"
#include "tests/support/artifact_builder.hpp"
#include "tests/support/wait_until.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron {
namespace {

constexpr unsigned long bit_of(int signal_number) {
    return 1UL << (signal_number - 1);
}
constexpr unsigned long K_ENDING_SIGNALS =
    bit_of(SIGINT) | bit_of(SIGTERM) | bit_of(SIGHUP) | bit_of(SIGPIPE);

unsigned long signals_in(std::string const& status, std::string const& label) {
    return std::stoul(status.substr(status.find(label) + label.size(), 16), nullptr, 16);
}

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

TEST(SpawnPackage, TheProgramIsStoppableThoughItsStarterBlocksAndIgnoresTheSignals) {
    sigset_t term;
    sigset_t before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &before);
    auto* const old_action = std::signal(SIGHUP, SIG_IGN);
    pid_t const pid = spawn_package({"/bin/sleep", {"1000"}, "/"});
    std::signal(SIGHUP, old_action);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    std::string const path = "/proc/" + std::to_string(pid) + "/status";
    test::wait_until([&] { return test::read_text(path).starts_with("Name:\tsleep\n"); },
                     "the child has become the program");
    std::string const status = test::read_text(path);
    EXPECT_EQ(signals_in(status, "SigBlk:\t") & K_ENDING_SIGNALS, 0u) << status;
    EXPECT_EQ(signals_in(status, "SigIgn:\t") & K_ENDING_SIGNALS, 0u) << status;
    child_process::send_signal(pid, SIGKILL);
    child_process::wait_for_end(pid);
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
