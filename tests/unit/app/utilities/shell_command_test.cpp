#include "app/utilities/shell_command.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/wait_until.hpp"
#include "tests/unit/app/utilities/run_in_child.hpp"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iterator>
#include <pthread.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tessaron {
namespace {

std::string output_of(std::string const& command) {
    auto const output = capture_shell(command);
    return output ? output->text : "no shell";
}

/// True for a process that exists and is no zombie: those wait for a parent that we don't control.
bool is_alive(std::string const& pid) {
    auto const stat = read_file("/proc/" + pid + "/stat");
    auto const name_end = stat ? stat->rfind(") ") : std::string::npos;
    return name_end != std::string::npos && (*stat)[name_end + 2] != 'Z';
}

std::vector<std::string> words_of(std::string const& path) {
    std::istringstream text(read_file(path).value_or(""));
    return {std::istream_iterator<std::string>(text), {}};
}

/// A command that writes the ids of its processes into "pids" once all of them run.
class StoppedCommand : public testing::Test {
protected:
    void request_stop_once_running(std::stop_source& source, std::size_t processes) {
        EXPECT_TRUE(test::wait_until([&] { return words_of(pids_).size() == processes; },
                                     "the command runs"));
        source.request_stop();
    }

    void expect_none_left() {
        for (auto const& pid : words_of(pids_)) {
            test::wait_until([&] { return !is_alive(pid); }, "process " + pid + " is gone");
        }
    }

    test::TemporaryDirectory directory_;
    std::string pids_ = directory_ / "pids";
    std::string write_pids_ = " echo $$ $! > " + pids_ + ".new; mv " + pids_ + ".new " + pids_;
};

TEST(RunShell, StatusIsThatOfTheCommand) {
    EXPECT_EQ(run_shell("true"), 0);
    EXPECT_EQ(WEXITSTATUS(run_shell("exit 3")), 3);
    EXPECT_EQ(WEXITSTATUS(run_shell("exit 255")), 255);
}

TEST(RunShell, UnknownCommandIs127) {
    int const status = run_shell("no_such_command_anywhere 2>/dev/null");
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 127);
}

TEST(RunShell, DeathBySignalIsInTheStatus) {
    int const status = run_shell("kill -KILL $$");
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(RunShell, CallersIgnoredAndBlockedSignalsAreNotInherited) {
    auto* const pipe_before = signal(SIGPIPE, SIG_IGN);
    auto* const hangup_before = signal(SIGHUP, SIG_IGN);
    sigset_t blocked;
    sigset_t mask_before;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &mask_before);
    std::string const blocked_text = output_of("sed -n 's/^SigBlk:.//p' /proc/self/status");
    std::string const ignored_text = output_of("sed -n 's/^SigIgn:.//p' /proc/self/status");
    sigset_t mask_after;
    pthread_sigmask(SIG_SETMASK, &mask_before, &mask_after);
    EXPECT_EQ(signal(SIGHUP, hangup_before), SIG_IGN);
    EXPECT_EQ(signal(SIGPIPE, pipe_before), SIG_IGN);
    EXPECT_EQ(blocked_text, "0000000000000000\n");
    // Signals 32 and 33 are the C library's own, and out of our hands.
    constexpr unsigned long long K_LIBRARY_SIGNALS = 0x180000000;
    EXPECT_EQ(std::stoull(ignored_text, nullptr, 16) & ~K_LIBRARY_SIGNALS, 0U);
    EXPECT_EQ(sigismember(&mask_after, SIGUSR1), 1); // the caller's own mask stayed
}

TEST(RunShell, CommandLeadsAProcessGroupOfItsOwn) {
    // Fields 1 and 5 of stat: process and process group.
    EXPECT_EQ(WEXITSTATUS(run_shell("read pid a b c group rest < /proc/$$/stat; "
                                    "[ $pid = $$ ] && [ $group = $$ ]")),
              0);
}

TEST(RunShell, CommandInheritsStandardDescriptorsOnly) {
    UniqueFd const closing = open_file("/dev/null", O_RDWR);
    UniqueFd const also_closing = open_file("/dev/null", O_RDWR);
    UniqueFd const careless(open("/dev/null", O_RDWR)); // without close-on-exec
    ASSERT_TRUE(closing.is_open() && also_closing.is_open() && careless.is_open());
    // Descriptor 3 is the directory that ls itself reads.
    EXPECT_EQ(output_of("ls /proc/self/fd"), "0\n1\n2\n3\n");
}

TEST(RunShell, StopRequestedBeforehandStartsNothing) {
    test::TemporaryDirectory const directory;
    std::stop_source source;
    source.request_stop();
    EXPECT_EQ(run_shell("touch " + (directory / "made"), source.get_token()), -1);
    EXPECT_EQ(capture_shell("touch " + (directory / "made"), source.get_token()), std::nullopt);
    EXPECT_FALSE(fs_tools::path_exists(directory / "made"));
}

TEST(RunShell, StopRequestedAfterTheEndChangesNothing) {
    std::stop_source source;
    EXPECT_EQ(run_shell("true", source.get_token()), 0);
    EXPECT_TRUE(source.request_stop());
}

TEST(RunShell, ManyThreadsRunCommandsAtOnce) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 50; ++i) {
        threads.emplace_back([i] {
            std::stop_source source;
            std::string const number = std::to_string(i);
            EXPECT_EQ(WEXITSTATUS(run_shell("exit " + number, source.get_token())), i);
            EXPECT_EQ(output_of("echo " + number), number + "\n");
        });
    }
}

TEST(RunShell, RaceOfStopAndEndGivesOneOfTheTwo) {
    for (int i = 0; i < 100; ++i) {
        std::stop_source source;
        std::jthread const stopper([&] { source.request_stop(); });
        int const status = run_shell("exit 0", source.get_token());
        EXPECT_TRUE(status == 0 || status == -1 || status == SIGTERM || status == SIGKILL)
            << status;
    }
}

TEST(RunShell, CommandRunsThoughNoDescriptorIsLeft) {
    bool const ran = test::run_in_limited_child(RLIMIT_NOFILE, 64, [] {
        std::vector<UniqueFd> all;
        do {
            all.push_back(open_file("/dev/null", O_RDONLY));
        } while (all.back().is_open());
        std::stop_source const source;
        return WEXITSTATUS(run_shell("exit 7")) == 7 && WEXITSTATUS(run_shell("exit 0")) == 0 &&
               // To be stoppable, or to be read from, takes a descriptor.
               run_shell("true", source.get_token()) == -1 && !capture_shell("true");
    });
    EXPECT_TRUE(ran);
}

TEST(CaptureShell, OutputAndStatusComeBack) {
    auto const output = capture_shell("printf 'a\\0b\\n'; exit 4");
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(output->text, std::string("a\0b\n", 4));
    EXPECT_EQ(WEXITSTATUS(output->status), 4);
}

TEST(CaptureShell, OutputLargerThanAPipeComesBackWhole) {
    EXPECT_TRUE(output_of("head -c 1000000 /dev/zero") == std::string(1'000'000, '\0'));
}

TEST_F(StoppedCommand, WithoutAStopOutputOfABackgroundProcessIsAwaited) {
    std::string const gate = directory_ / "gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    std::jthread const opener([&] {
        test::wait_until([&] { return words_of(pids_).size() == 2; }, "the command runs");
        test::wait_until([&] { return !is_alive(words_of(pids_).front()); }, "the shell ended");
        EXPECT_TRUE(write_file(gate, "late", 0));
    });
    EXPECT_EQ(output_of("cat " + gate + " & echo early;" + write_pids_), "early\nlate");
}

TEST_F(StoppedCommand, StopEndsTheShellAndItsGrandchild) {
    std::stop_source source;
    std::jthread const stopper([&] { request_stop_once_running(source, 2); });
    int const status =
        run_shell("sleep 1000 &" + write_pids_ + "; sleep 1000; :", source.get_token());
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    expect_none_left();
}

TEST_F(StoppedCommand, GroupThatIgnoresTheFirstSignalIsKilled) {
    std::stop_source source;
    std::jthread const stopper([&] { request_stop_once_running(source, 2); });
    int const status =
        run_shell("trap '' TERM; sleep 1000 &" + write_pids_ + "; wait; wait", source.get_token());
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    expect_none_left();
}

TEST_F(StoppedCommand, ShellMayUseItsGraceToCleanUp) {
    std::stop_source source;
    std::jthread const stopper([&] { request_stop_once_running(source, 2); });
    int const status = run_shell("trap 'echo cleaned > " + (directory_ / "out") +
                                     "; exit 9' TERM; sleep 1000 &" + write_pids_ + "; wait",
                                 source.get_token());
    EXPECT_EQ(WEXITSTATUS(status), 9);
    EXPECT_EQ(read_file(directory_ / "out"), "cleaned\n");
    expect_none_left();
}

TEST_F(StoppedCommand, StopEndsReadingThoughAGrandchildKeepsTheOutputOpen) {
    std::stop_source source;
    std::jthread const stopper([&] { request_stop_once_running(source, 2); });
    // The shell itself is long gone; its child holds the pipe and ignores the first signal.
    auto const output =
        capture_shell("echo begun; trap '' TERM; sleep 1000 &" + write_pids_, source.get_token());
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(output->text, "begun\n");
    EXPECT_EQ(output->status, 0);
    expect_none_left();
}

} // namespace
} // namespace tessaron
