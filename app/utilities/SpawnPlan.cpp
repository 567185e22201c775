#include "app/utilities/SpawnPlan.hpp"

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace tessaron {

SpawnPlan::SpawnPlan() {
    check(posix_spawnattr_init(&attributes_));
    check(posix_spawn_file_actions_init(&actions_));
}

SpawnPlan::~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
}

void SpawnPlan::lead_own_group() {
    check(posix_spawnattr_setpgroup(&attributes_, 0));
    set(POSIX_SPAWN_SETPGROUP);
}

void SpawnPlan::lead_own_session() {
    set(POSIX_SPAWN_SETSID);
}

void SpawnPlan::forget_signal_state() {
    sigset_t signals;
    sigfillset(&signals);
    check(posix_spawnattr_setsigdefault(&attributes_, &signals));
    sigemptyset(&signals);
    check(posix_spawnattr_setsigmask(&attributes_, &signals));
    set(POSIX_SPAWN_SETSIGDEF);
    set(POSIX_SPAWN_SETSIGMASK);
}

void SpawnPlan::open(int fd, char const* path, int flags) {
    check(posix_spawn_file_actions_addopen(&actions_, fd, path, flags, 0));
}

void SpawnPlan::redirect(int from, int to) {
    check(posix_spawn_file_actions_adddup2(&actions_, from, to));
}

void SpawnPlan::close_from(int first) {
    check(posix_spawn_file_actions_addclosefrom_np(&actions_, first));
}

pid_t SpawnPlan::spawn(char const* program, char* const* arguments, char* const* environment) {
    check(posix_spawnattr_setflags(&attributes_, flags_));
    pid_t pid = -1;
    if (error_ == 0) {
        error_ = posix_spawn(&pid, program, &actions_, &attributes_, arguments,
                             environment != nullptr ? environment : environ);
    }
    if (error_ != 0) {
        errno = error_;
        return -1;
    }
    return pid;
}

void SpawnPlan::set(short flag) {
    flags_ = static_cast<short>(flags_ | flag);
}

void SpawnPlan::check(int error) {
    if (error_ == 0) {
        error_ = error;
    }
}

} // namespace tessaron
