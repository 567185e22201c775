#pragma once

#include <spawn.h>
#include <sys/types.h>

namespace tessaron {

/// The attributes and file actions of one `posix_spawn`: how a child is to be set up before its
/// program begins. Nothing of it runs in a copy of this process, so a program of many threads may
/// spawn at any moment.
///
/// Ownership: what is passed by pointer must stay alive until `spawn` has returned.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: those of the single steps are remembered and told by `spawn`.
class SpawnPlan {
public:
    SpawnPlan();
    ~SpawnPlan();
    SpawnPlan(SpawnPlan const&) = delete;
    SpawnPlan& operator=(SpawnPlan const&) = delete;

    void lead_own_group();
    /// A session of its own, and with it a group. The first terminal that it opens controls it.
    void lead_own_session();
    /// Default dispositions and an empty mask.
    void forget_signal_state();
    void open(int fd, char const* path, int flags);
    void redirect(int from, int to);
    void close_from(int first);

    /// The child's process id when its program has begun; otherwise -1 with `errno` set, and no
    /// child is left. A null environment is that of this process.
    [[nodiscard]] pid_t spawn(char const* program, char* const* arguments,
                              char* const* environment = nullptr);

private:
    void set(short flag);
    void check(int error);

    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
    short flags_ = 0;
    int error_ = 0;
};

} // namespace tessaron
