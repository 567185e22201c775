#include "app/utilities/ShellProcess.hpp"

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron {
namespace {

/// The attributes and file actions of one spawn.
class SpawnPlan {
public:
    SpawnPlan() {
        failed_ = posix_spawnattr_init(&attributes_) != 0;
        failed_ = posix_spawn_file_actions_init(&actions_) != 0 || failed_;
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(SpawnPlan const&) = delete;
    SpawnPlan& operator=(SpawnPlan const&) = delete;

    void lead_own_group() { check(posix_spawnattr_setpgroup(&attributes_, 0)); }

    void forget_signal_state() {
        sigset_t signals;
        sigfillset(&signals);
        check(posix_spawnattr_setsigdefault(&attributes_, &signals));
        sigemptyset(&signals);
        check(posix_spawnattr_setsigmask(&attributes_, &signals));
    }

    void redirect(int from, int to) {
        check(posix_spawn_file_actions_adddup2(&actions_, from, to));
    }

    void close_from(int first) {
        check(posix_spawn_file_actions_addclosefrom_np(&actions_, first));
    }

    /// The process id, or -1.
    pid_t spawn(char const* program, char* const* arguments) {
        check(posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                                         POSIX_SPAWN_SETSIGMASK));
        pid_t pid = -1;
        if (failed_ ||
            posix_spawn(&pid, program, &actions_, &attributes_, arguments, environ) != 0) {
            return -1;
        }
        return pid;
    }

private:
    void check(int error) { failed_ = error != 0 || failed_; }

    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
    bool failed_ = false;
};

} // namespace

std::unique_ptr<ShellProcess> ShellProcess::start(std::string const& command, int standard_output) {
    SpawnPlan plan;
    plan.lead_own_group();
    plan.forget_signal_state();
    if (standard_output >= 0) {
        plan.redirect(standard_output, STDOUT_FILENO);
    }
    plan.close_from(STDERR_FILENO + 1);

    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    pid_t const pid = plan.spawn("/bin/sh", arguments);
    return pid > 0 ? std::unique_ptr<ShellProcess>(new ShellProcess(pid)) : nullptr;
}

ShellProcess::ShellProcess(pid_t pid)
    : pid_(pid), end_event_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
}

ShellProcess::~ShellProcess() {
    if (!reaped_) {
        signal_group(SIGKILL);
        reap();
    }
}

bool ShellProcess::has_ended() const {
    siginfo_t info{};
    // WNOWAIT: the process id stays ours until `reap`.
    while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        if (errno != EINTR) {
            return true;
        }
    }
    return info.si_pid == pid_;
}

void ShellProcess::signal_group(int signal) const {
    kill(-pid_, signal);
}

int ShellProcess::reap() {
    reaped_ = true;
    int status = -1;
    while (waitpid(pid_, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

} // namespace tessaron
