#pragma once

#include "app/utilities/file_io.hpp"
#include "tests/support/wait_until.hpp"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <pthread.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/types.h>

/// What the system says of processes, as the tests of the console need it.
namespace mirelclient::test {

/// True for a process that exists and is no zombie.
inline bool is_alive(pid_t pid) {
    auto const stat = tessaron::read_file("/proc/" + std::to_string(pid) + "/stat");
    auto const name_end = stat ? stat->rfind(") ") : std::string::npos;
    return name_end != std::string::npos && (*stat)[name_end + 2] != 'Z';
}

/// The children of this process, zombies among them.
inline std::set<pid_t> children() {
    std::set<pid_t> found;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::istringstream text(tessaron::read_file(task.path() / "children").value_or(""));
        found.insert(std::istream_iterator<pid_t>(text), {});
    }
    return found;
}

inline std::size_t descriptor_count() {
    auto const all = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// The process id that a command wrote into the file.
inline pid_t pid_in(std::string const& path) {
    tessaron::test::wait_until(
        [&] { return tessaron::read_file(path).value_or("").ends_with('\n'); },
        "there is a process id in " + path);
    return std::atoi(tessaron::read_file(path).value_or("").c_str());
}

inline void expect_ends(pid_t pid) {
    ASSERT_GT(pid, 1);
    tessaron::test::wait_until([pid] { return !is_alive(pid); },
                               "process " + std::to_string(pid) + " has ended");
}

/// Ends a process that the test left alive on purpose.
inline void end_process(pid_t pid) {
    ASSERT_GT(pid, 1);
    EXPECT_TRUE(is_alive(pid));
    ::kill(pid, SIGKILL);
}

/// Calls it with a signal ignored and all of them blocked.
template <typename Function>
void with_odd_signal_state(Function function) {
    sigset_t all;
    sigset_t own;
    sigfillset(&all);
    auto* const pipe_handler = std::signal(SIGPIPE, SIG_IGN);
    pthread_sigmask(SIG_SETMASK, &all, &own);
    function();
    pthread_sigmask(SIG_SETMASK, &own, nullptr);
    std::signal(SIGPIPE, pipe_handler);
}

/// Prints two masks: blocked and ignored signals.
inline constexpr char const* K_SHOW_SIGNAL_STATE =
    "grep -E 'Sig(Blk|Ign)' /proc/self/status | cut -f 2";

inline void expect_default_signal_state(std::string const& shown) {
    // The two signals behind the first 31 are the C library's own.
    constexpr unsigned long K_ORDINARY = 0x7fffffff;
    std::istringstream text(shown);
    unsigned long blocked = 1;
    unsigned long ignored = 1;
    text >> std::hex >> blocked >> ignored;
    EXPECT_EQ(blocked, 0U) << shown;
    EXPECT_EQ(ignored & K_ORDINARY, 0U) << shown;
}

} // namespace mirelclient::test
