#include "package/child_process.hpp"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>

namespace tessaron::child_process {

namespace {

pid_t wait_uninterrupted(pid_t pid, int options) {
    int status = 0;
    pid_t result = -1;
    do {
        result = waitpid(pid, &status, options);
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace

bool has_ended(pid_t pid) {
    if (pid <= 0) {
        return true;
    }
    pid_t const result = wait_uninterrupted(pid, WNOHANG);
    return result == pid || (result < 0 && errno == ECHILD);
}

bool some_child_may_have_ended() {
    siginfo_t ended{};
    // WNOWAIT: whose child it is, and who reaps it, is not known here.
    int const result = waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT);
    return result != 0 || ended.si_pid != 0;
}

void wait_for_end(pid_t pid) {
    if (pid > 0) {
        wait_uninterrupted(pid, 0);
    }
}

void send_signal(pid_t pid, int signal_number) {
    if (pid > 0) {
        kill(pid, signal_number);
    }
}

} // namespace tessaron::child_process
