#include "app/utilities/ShellProcess.hpp"

#include "app/utilities/SpawnPlan.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron {
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
    return pid > 0 ? std::make_unique<ShellProcess>(pid) : nullptr;
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

bool ShellProcess::wait_for_end(std::chrono::milliseconds limit) const {
    using Clock = std::chrono::steady_clock;
    auto const deadline = Clock::now() + limit;
    while (!has_ended()) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd end{end_event(), POLLIN, 0};
        auto const pause = end.fd >= 0 ? left : std::min(left, K_POLL_WITHOUT_END_EVENT);
        poll(&end, 1, static_cast<int>(pause.count()));
    }
    return true;
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
