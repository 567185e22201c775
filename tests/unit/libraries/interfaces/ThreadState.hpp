#pragma once

#include "tests/support/artifact_builder.hpp"
#include "tests/support/wait_until.hpp"

#include <filesystem>
#include <set>
#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace proto::interface::test {

/// The threads that have a name of their own, as all that the program starts have once they run.
/// The others bear the program's: the first one, and the one that a sanitizer starts when it likes.
inline std::set<std::string> thread_ids() {
    std::string const program = tessaron::test::read_text("/proc/self/comm");
    std::set<std::string> ids;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string const name = tessaron::test::read_text(entry.path() / "comm");
        if (!name.empty() && name != program) {
            ids.insert(entry.path().filename());
        }
    }
    return ids;
}

/// Waits until a thread of this process sleeps in a system call.
inline bool wait_until_blocked_in(pid_t thread, long call) {
    std::string const path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    return tessaron::test::wait_until(
        [&] {
            std::string const state = tessaron::test::read_text(path);
            return state.rfind(std::to_string(call) + " ", 0) == 0;
        },
        "the thread sleeps in call " + std::to_string(call));
}

/// Names of the sockets of this process that a child would inherit.
inline std::set<std::string> inheritable_sockets() {
    std::set<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        std::string const target = std::filesystem::read_symlink(entry.path(), gone);
        std::string const info =
            tessaron::test::read_text("/proc/self/fdinfo/" + entry.path().filename().string());
        std::size_t const flags = info.find("flags:");
        bool const closes_on_exec =
            flags != std::string::npos &&
            (std::stoul(info.substr(flags + 6), nullptr, 8) & 02000000UL) != 0;
        if (target.rfind("socket:", 0) == 0 && !closes_on_exec) {
            names.insert(entry.path().filename().string() + " " + target);
        }
    }
    return names;
}

} // namespace proto::interface::test
