#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron::test {

/// Runs `work` in a forked child. True if it returned true.
template <typename Work>
bool run_in_child(Work work) {
    pid_t const child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Runs `work` in a forked child that lives under a resource limit. True if it returned true.
template <typename Work>
bool run_in_limited_child(__rlimit_resource resource, rlim_t limit, Work work) {
    return run_in_child([&] {
        rlimit const both{limit, limit};
        return setrlimit(resource, &both) == 0 && work();
    });
}

} // namespace tessaron::test
