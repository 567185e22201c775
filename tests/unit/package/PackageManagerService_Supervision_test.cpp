#include "tests/unit/package/PackageTest.hpp"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace tessaron {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::expect_failure;
using test::expect_success;
using test::read_text;
using test::wait_until;
using test::write_text;
using testing::ElementsAre;

using Clock = RespawnCooldown::Clock;

class Supervision : public test::PackageTest {
protected:
    /// Installs "a" with this program and starts it; `run_` is its directory.
    void run(std::string const& body) {
        expect_success(install("a", "1", artifact().program("run", body).build(), true));
    }
    void pass(Clock::time_point now) { service().supervise_once(cooldown_, now); }
    bool reaped_and_down(Clock::time_point now) {
        pass(now);
        return status_of("a") == "down";
    }

    std::string const run_ = path_of("a", "1");
    RespawnCooldown cooldown_;
    Clock::time_point const t0_ = Clock::now();
};

std::vector<std::string> split_at_nul(std::string const& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '\0');) {
        parts.push_back(part);
    }
    return parts;
}

TEST_F(Supervision, UnknownNamesFailWithTheOperationsName) {
    expect_failure(service().start("none"), "start: \"none\" is not installed");
    expect_failure(service().stop("none"), "stop: \"none\" is not installed");
    expect_failure(service().restart("none"), "stop: \"none\" is not installed");
    EXPECT_FALSE(fs::exists(registry_path()));
}

TEST_F(Supervision, StartOfARunningPackageSucceedsAndLeavesItsProcess) {
    run(K_RUNS_UNTIL_STOPPED);
    pid_t const pid = take_pid(run_ + "/pid");
    expect_success(service().start("a"));
    EXPECT_TRUE(is_alive(pid));
    expect_success(service().stop("a"));
    EXPECT_FALSE(fs::exists(run_ + "/pid")) << "a second process would have written it";
}

TEST_F(Supervision, StartNeedsAnExecutableInTheManifest) {
    for (char const* manifest : {"{}", R"({"executable":""})", R"({"executable":7})"}) {
        expect_success(install("a", "1", artifact().manifest(manifest).build()));
        expect_failure(service().start("a"), "start: manifest has no \"executable\" field");
    }
}

TEST_F(Supervision, AFailedStartLeavesTheOperatorsStop) {
    expect_success(install("a", "1", artifact().manifest("{}").build()));
    expect_success(service().stop("a"));
    expect_failure(service().start("a"), "start: manifest has no \"executable\" field");
    EXPECT_EQ(status_of("a"), "stopped");
    expect_failure(service().restart("a"), "start: manifest has no \"executable\" field");
    EXPECT_EQ(status_of("a"), "stopped");
}

TEST_F(Supervision, AForkThatFailsIsToldWithTheSystemsReason) {
    expect_success(install("a", "1", sleeper()));
    auto const start_without_processes = [&] {
        rlimit const none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (geteuid() == 0 && setuid(65534) != 0) { // the limit does not hold for root
            _exit(1);
        }
        PackageManagerReply const reply = service().start("a");
        fprintf(stderr, "%s", reply.error.c_str());
        _exit(reply.ok ? 1 : 0);
    };
    EXPECT_EXIT(start_without_processes(), testing::ExitedWithCode(0),
                "start: fork\\(\\) failed: Resource temporarily unavailable");
}

TEST_F(Supervision, TheChildHasItsDirectoryArgumentsEnvironmentAndDescriptorsZeroToTwo) {
    // What this process got from whoever started it is not the service's doing.
    std::vector<int> inherited;
    for (auto const& fd : fs::directory_iterator("/proc/self/fd")) {
        inherited.push_back(std::stoi(fd.path().filename()));
    }
    for (int const fd : inherited) {
        if (fd > STDERR_FILENO) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    setenv("CONSOLE_APP_GATEWAY_TCP_PORT", "1234", 1);
    setenv("CONSOLE_APP_GATEWAY_TCP_PORT_2", "it only begins like it", 1);
    open();
    expect_success(install("a", "1", artifact().copied_program("shell", "/bin/sh").build(), false));
    std::string const script = "echo $$ > pid.new; mv pid.new pid; mkfifo f; read x < f";
    expect_success(service().set_launch_args("a", {"-c", script, "", "it's $HOME"}));
    expect_success(service().start("a"));
    pid_t const pid = take_pid(run_ + "/pid");
    std::string const proc = "/proc/" + std::to_string(pid);

    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), run_);
    EXPECT_THAT(split_at_nul(read_text(proc + "/cmdline")),
                ElementsAre(run_ + "/shell", "-c", script, "", "it's $HOME"));
    std::vector<std::string> expected;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::string(*variable) != "CONSOLE_APP_GATEWAY_TCP_PORT=1234") {
            expected.emplace_back(*variable);
        }
    }
    EXPECT_EQ(split_at_nul(read_text(proc + "/environ")), expected);
    EXPECT_STREQ(getenv("CONSOLE_APP_GATEWAY_TCP_PORT"), "1234") << "the daemon keeps its own";
    std::set<std::string> descriptors;
    for (auto const& fd : fs::directory_iterator(proc + "/fd")) {
        descriptors.insert(fd.path().filename());
    }
    EXPECT_THAT(descriptors, ElementsAre("0", "1", "2"));
    EXPECT_EQ(getpgid(pid), getpgrp());
    EXPECT_EQ(fs::read_symlink(proc + "/fd/1"), fs::read_symlink("/proc/self/fd/1"));
    unsetenv("CONSOLE_APP_GATEWAY_TCP_PORT");
    unsetenv("CONSOLE_APP_GATEWAY_TCP_PORT_2");
}

TEST_F(Supervision, AnExecutableThatDoesNotExistLooksLikeACrash) {
    expect_success(install("a", "1", artifact().manifest(R"({"executable":"none"})").build()));
    expect_success(service().start("a"));
    EXPECT_EQ(status_of("a"), "running");
    EXPECT_TRUE(cooldown_.try_attempt("a", t0_)); // so that no pass starts it again
    wait_until([&] { return reaped_and_down(t0_); }, "the end of the child is seen");
}

TEST_F(Supervision, AnInstallPathThatIsGoneLooksLikeACrash) {
    expect_success(install("a", "1", sleeper()));
    fs::remove_all(run_);
    expect_success(service().start("a"));
    EXPECT_TRUE(cooldown_.try_attempt("a", t0_)); // so that no pass starts it again
    wait_until([&] { return reaped_and_down(t0_); }, "the end of the child is seen");
}

TEST_F(Supervision, StopOfAPackageThatIsDownMarksItStopped) {
    expect_success(install("a", "1", sleeper()));
    expect_success(service().stop("a"));
    EXPECT_EQ(status_of("a"), "stopped");
    EXPECT_NE(registry().find("\"administratively_stopped\":true"), std::string::npos);
    pass(t0_);
    EXPECT_EQ(status_of("a"), "stopped");
}

TEST_F(Supervision, StartTakesBackAnOperatorsStop) {
    expect_success(install("a", "1", sleeper()));
    expect_success(service().stop("a"));
    expect_success(service().start("a"));
    EXPECT_EQ(status_of("a"), "running");
    EXPECT_NE(registry().find("\"administratively_stopped\":false"), std::string::npos);
}

TEST_F(Supervision, StopEndsAndReapsTheProcess) {
    run(K_RUNS_UNTIL_STOPPED);
    pid_t const pid = take_pid(run_ + "/pid");
    expect_success(service().stop("a"));
    EXPECT_EQ(status_of("a"), "stopped");
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Supervision, AProgramThatTrapsTheSignalMayFinishItsWork) {
    run("trap 'kill $!; echo finished > finished; exit 0' TERM; echo $$ > pid.new; "
        "mv pid.new pid; sleep 1000 & wait $!");
    take_pid(run_ + "/pid");
    expect_success(service().stop("a"));
    EXPECT_EQ(read_text(run_ + "/finished"), "finished\n");
}

TEST_F(Supervision, AProgramThatIgnoresTheSignalIsKilledAfterTheGracePeriod) {
    run("trap '' TERM; echo $$ > pid.new; mv pid.new pid; exec sleep 1000");
    pid_t const pid = take_pid(run_ + "/pid");
    auto const before = Clock::now();
    expect_success(service().stop("a"));
    EXPECT_GE(Clock::now() - before, seconds(3));
    EXPECT_FALSE(is_alive(pid));
    EXPECT_EQ(status_of("a"), "stopped");
}

TEST_F(Supervision, AChildThatSomeoneElseReapedCountsAsGone) {
    run(K_RUNS_UNTIL_STOPPED);
    pid_t const pid = take_pid(run_ + "/pid");
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_TRUE(cooldown_.try_attempt("a", t0_));
    pass(t0_);
    EXPECT_EQ(status_of("a"), "down");

    expect_success(service().start("a"));
    pid_t const next = take_pid(run_ + "/pid");
    kill(next, SIGKILL);
    ASSERT_EQ(waitpid(next, nullptr, 0), next);
    expect_success(service().stop("a"));
    EXPECT_EQ(status_of("a"), "stopped");
}

TEST_F(Supervision, RestartReplacesTheProcess) {
    run(K_RUNS_UNTIL_STOPPED);
    pid_t const pid = take_pid(run_ + "/pid");
    expect_success(service().restart("a"));
    EXPECT_FALSE(is_alive(pid));
    EXPECT_NE(take_pid(run_ + "/pid"), pid);
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Supervision, RestartStartsAStoppedPackage) {
    expect_success(install("a", "1", sleeper()));
    expect_success(service().stop("a"));
    expect_success(service().restart("a"));
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Supervision, LaunchArgumentsTakeEffectAtTheNextStartWhicheverWayItComes) {
    run("echo \"$*\" >> " + (scratch_ / "args") + "; " + K_RUNS_UNTIL_STOPPED);
    take_pid(run_ + "/pid");
    expect_success(service().set_launch_args("a", {"of", "restart"}));
    expect_success(service().start("a")); // runs already: not a start
    expect_success(service().restart("a"));
    pid_t const pid = take_pid(run_ + "/pid");
    expect_success(service().set_launch_args("a", {"of", "respawn"}));
    kill(pid, SIGKILL);
    wait_until(
        [&] {
            pass(t0_);
            return fs::exists(run_ + "/pid");
        },
        "the supervisor started it again");
    EXPECT_EQ(read_text(scratch_ / "args"), "\nof restart\nof respawn\n");
}

TEST_F(Supervision, TheFirstRespawnIsImmediateAndLaterOnesKeepTheCooldown) {
    expect_success(install("a", "1", artifact().program("run", "echo x >> starts").build()));
    auto const starts = [&] { return read_text(run_ + "/starts").size() / 2; };
    auto const ended = [&](std::size_t count) {
        wait_until([&] { return starts() == count; }, "the program has run");
    };

    pass(t0_); // first attempt
    EXPECT_EQ(status_of("a"), "running");
    ended(1);
    // A pass within the cooldown sees the end of the process and starts nothing.
    wait_until([&] { return reaped_and_down(t0_ + milliseconds(2999)); }, "the end is seen");
    pass(t0_ + milliseconds(2999));
    EXPECT_EQ(status_of("a"), "down");

    pass(t0_ + seconds(3)); // second attempt, and from there the next cooldown counts
    EXPECT_EQ(status_of("a"), "running");
    ended(2);
    wait_until([&] { return reaped_and_down(t0_ + milliseconds(5999)); }, "the end is seen");
    pass(t0_ + seconds(6));
    EXPECT_EQ(status_of("a"), "running");
    ended(3);
}

TEST_F(Supervision, AnOperatorsStartDoesNotTouchTheCooldown) {
    run("exit 0");
    // The first pass that sees the end may start it at once: the supervisor made no attempt yet.
    wait_until(
        [&] {
            pass(t0_);
            return !cooldown_.try_attempt("a", t0_);
        },
        "the supervisor respawned it");
}

TEST_F(Supervision, APackageThatCannotStartIsTriedForEver) {
    expect_success(install("a", "1", artifact().manifest("{}").build()));
    for (int i = 0; i < 100; ++i) {
        pass(t0_ + i * seconds(3));
        EXPECT_EQ(status_of("a"), "down");
        EXPECT_FALSE(cooldown_.try_attempt("a", t0_ + i * seconds(3))) << "an attempt was made";
    }
}

TEST_F(Supervision, AReinstalledPackageStillWaitsForItsCooldown) {
    expect_success(install("a", "1", sleeper()));
    pass(t0_);
    expect_success(service().uninstall("a"));
    expect_success(install("a", "1", sleeper()));
    pass(t0_ + seconds(1));
    EXPECT_EQ(status_of("a"), "down");
    pass(t0_ + seconds(3));
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Supervision, AStoppedPackageIsNotRespawned) {
    run(K_RUNS_UNTIL_STOPPED);
    take_pid(run_ + "/pid");
    expect_success(service().stop("a"));
    pass(t0_);
    pass(t0_ + seconds(10));
    EXPECT_EQ(status_of("a"), "stopped");
    EXPECT_FALSE(fs::exists(run_ + "/pid"));
}

TEST_F(Supervision, ThePollStartsWhatShouldRun) {
    expect_success(install("a", "1", sleeper()));
    open(milliseconds(5));
    EXPECT_TRUE(is_alive(take_pid(run_ + "/pid")));
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Supervision, ThePollRespawnsWhatDied) {
    open(milliseconds(5));
    run(K_RUNS_UNTIL_STOPPED);
    pid_t const first = take_pid(run_ + "/pid");
    kill(first, SIGKILL);
    EXPECT_NE(take_pid(run_ + "/pid"), first);
}

TEST_F(Supervision, AStopHoldsOffEveryRespawn) {
    expect_success(install("a", "1", sleeper()));
    open(milliseconds(1));
    for (int i = 0; i < 20; ++i) {
        expect_success(service().start("a"));
        expect_success(service().stop("a"));
        EXPECT_EQ(status_of("a"), "stopped");
    }
}

} // namespace
} // namespace tessaron
