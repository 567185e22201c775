#include "MirelClientApp/console/ConsoleExecutor.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/MirelClientApp/console/ProcessFacts.hpp"

#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace mirelclient {
namespace {

constexpr std::size_t K_MEBIBYTE = 1024 * 1024;
constexpr char const* K_NOTE = "\n[...output truncated at 1 MiB...]";
/// Longer than any command here takes, unless it is to meet its limit.
constexpr int K_LONG = 60;

ConsoleExecutor::Result run(std::string const& command, int limit = K_LONG) {
    return ConsoleExecutor().exec(command, limit);
}

void expect_result(ConsoleExecutor::Result const& result, int exit_code, std::string const& output,
                   bool timed_out = false) {
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.timed_out, timed_out);
}

TEST(ConsoleExecutor, CapturesBothOutputs) {
    expect_result(run("echo out; echo err >&2"), 0, "out\nerr\n");
}

TEST(ConsoleExecutor, GivesTheExitStatusOfTheShell) {
    expect_result(run("exit 3"), 3, "");
    expect_result(run("exit 255"), 255, "");
    expect_result(run(""), 0, "");
}

TEST(ConsoleExecutor, AShellThatASignalEndsGivesMinusOne) {
    expect_result(run("echo before; kill -9 $$"), -1, "before\n");
    expect_result(run("kill -TERM $$"), -1, "");
}

TEST(ConsoleExecutor, ACommandThatDoesNotExistGives127WithTheShellsWords) {
    auto const result = run("no-such-command-anywhere");
    EXPECT_EQ(result.exit_code, 127);
    EXPECT_NE(result.output.find("not found"), std::string::npos);
}

TEST(ConsoleExecutor, AShellThatCannotBeExecutedGives127) {
    // One argument may not be that long.
    expect_result(run(std::string(300'000, ' ')), 127, "");
}

TEST(ConsoleExecutor, ACommandThatTakesTooLongIsKilledWithItsGroup) {
    tessaron::test::TemporaryDirectory const directory;
    std::string const pid_file = directory / "pid";
    expect_result(run("sleep 1000 & echo $! >" + pid_file + "; echo begun; wait", 1), -1, "begun\n",
                  true);
    test::expect_ends(test::pid_in(pid_file));
    EXPECT_TRUE(test::children().empty());
}

TEST(ConsoleExecutor, ACommandThatNeverStopsPrintingMeetsItsLimit) {
    auto const result = run("yes", 1);
    EXPECT_EQ(result.exit_code, -1);
    EXPECT_TRUE(result.timed_out);
    EXPECT_EQ(result.output.size(), K_MEBIBYTE + std::string(K_NOTE).size());
}

TEST(ConsoleExecutor, ACommandThatClosesItsOutputMeetsItsLimit) {
    expect_result(run("echo last; exec >&- 2>&-; sleep 1000", 1), -1, "last\n", true);
}

TEST(ConsoleExecutor, ACommandThatClosesItsOutputIsWaitedFor) {
    expect_result(run("exec >&- 2>&-; sleep 0.1; exit 4"), 4, "");
}

TEST(ConsoleExecutor, AJobInTheBackgroundIsNotWaitedForAndRunsOn) {
    // Without the job's end the output has none: only the shell's own end can end this.
    auto const result = run("sleep 1000 & echo $!");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_FALSE(result.timed_out);
    test::end_process(std::atoi(result.output.c_str()));
}

TEST(ConsoleExecutor, AJobInTheBackgroundThatNeverStopsPrintingIsNotWaitedFor) {
    auto const result = run("echo $$; yes & exit 5");
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_FALSE(result.timed_out);
}

TEST(ConsoleExecutor, WhatTheShellWroteLastIsThereThoughAJobHoldsTheOutput) {
    auto const result = run("sleep 1000 & echo $!; head -c 50000 /dev/zero | tr '\\0' x");
    std::size_t const line_end = result.output.find('\n');
    EXPECT_EQ(result.output.substr(line_end + 1), std::string(50'000, 'x'));
    test::end_process(std::atoi(result.output.c_str()));
}

TEST(ConsoleExecutor, CutsOutputAtOneMebibyteAndSaysSo) {
    auto const result = run("head -c 3000000 /dev/zero | tr '\\0' x");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, std::string(K_MEBIBYTE, 'x') + K_NOTE);
}

TEST(ConsoleExecutor, OutputThatFillsItExactlyHasNoNote) {
    expect_result(run("head -c 1048576 /dev/zero | tr '\\0' x"), 0, std::string(K_MEBIBYTE, 'x'));
}

TEST(ConsoleExecutor, TheShellLeadsItsOwnSession) {
    EXPECT_EQ(run("ps -o sid=,pgid= -p $$ | { read sid pgid; [ $sid = $$ ] && [ $pgid = $$ ]; }")
                  .exit_code,
              0);
}

TEST(ConsoleExecutor, TheShellGetsItsStandardStreamsAndNoOtherDescriptor) {
    // Without a pipe or a program of its own: for those the shell would open descriptors.
    auto const result = run("fd=0; while [ $fd -lt 100 ]; do"
                            " [ -e /proc/$$/fd/$fd ] && echo $fd; fd=$((fd+1)); done");
    EXPECT_EQ(result.output, "0\n1\n2\n");
}

TEST(ConsoleExecutor, TheShellHasItsSignalsInTheirDefaultState) {
    std::string state;
    test::with_odd_signal_state([&] { state = run(test::K_SHOW_SIGNAL_STATE).output; });
    test::expect_default_signal_state(state);
}

TEST(ConsoleExecutor, LeavesNoDescriptorAndNoChild) {
    std::size_t const descriptors = test::descriptor_count();
    for (char const* command : {"true", "kill -9 $$", "exec >&- 2>&-", "sleep 1000 & kill $!"}) {
        run(command);
    }
    run("sleep 1000", 0);
    EXPECT_EQ(test::descriptor_count(), descriptors);
    EXPECT_TRUE(test::children().empty());
}

TEST(ConsoleExecutor, SaysWhyThereIsNoPipe) {
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    rlimit const none{0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    auto const result = run("true");
    setrlimit(RLIMIT_NOFILE, &former);
    expect_result(result, -1, "pipe() failed: Too many open files");
}

TEST(ConsoleExecutor, CommandsRunInParallel) {
    tessaron::test::TemporaryDirectory const directory;
    // Each of them waits for the other one.
    std::string const a = directory / "a";
    std::string const b = directory / "b";
    auto const meeting = [](std::string const& own, std::string const& other) {
        return ": >" + own + "; until [ -e " + other + " ]; do sleep 0.01; done";
    };
    ConsoleExecutor const executor;
    ConsoleExecutor::Result first;
    std::thread thread([&] { first = executor.exec(meeting(a, b), K_LONG); });
    expect_result(executor.exec(meeting(b, a), K_LONG), 0, "");
    thread.join();
    expect_result(first, 0, "");
}

TEST(ConsoleExecutor, AStopKillsWhatRunsAndRefusesWhatWouldCome) {
    tessaron::test::TemporaryDirectory const directory;
    std::stop_source stop;
    ConsoleExecutor const executor(stop.get_token());
    std::vector<std::string> const commands{"yes >/dev/null &", "trap '' TERM HUP INT;",
                                            "exec >&- 2>&-;"};
    std::vector<std::thread> threads;
    std::vector<pid_t> pids;
    for (std::size_t i = 0; i < commands.size(); ++i) {
        std::string const pid_file = directory / std::to_string(i);
        threads.emplace_back([&, pid_file, i] {
            auto const result = executor.exec("echo $$ >" + pid_file + "; " + commands[i] +
                                                  " while :; do sleep 1000; done",
                                              K_LONG);
            EXPECT_EQ(result.exit_code, -1);
            EXPECT_FALSE(result.timed_out);
        });
        pids.push_back(test::pid_in(pid_file));
    }
    stop.request_stop();
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (pid_t const pid : pids) {
        test::expect_ends(pid);
    }
    expect_result(executor.exec("echo late", K_LONG), -1, "");
    EXPECT_TRUE(test::children().empty());
}

} // namespace
} // namespace mirelclient
