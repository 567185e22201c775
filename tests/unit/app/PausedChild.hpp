#pragma once

#include "app/utilities/file_io.hpp"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessaron::test {

/// What a child does about SIGTERM.
enum class OnTerm { die, ignore };

/// A forked process that prepares something, keeps it and sleeps until a signal ends it, at the
/// latest with this object.
class PausedChild {
public:
    /// Returns when `prepare` has returned in the child; throws if it returned false.
    explicit PausedChild(std::function<bool()> const& prepare, OnTerm on_term = OnTerm::die) {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        UniqueFd const ready(ends[0]);
        UniqueFd tell_ready(ends[1]);
        pid_ = fork();
        if (pid_ == 0) {
            live(prepare, on_term, tell_ready.get());
        }
        tell_ready.reset();
        char told = 0;
        if (read(ready.get(), &told, 1) != 1) {
            end();
            throw std::runtime_error("the child could not prepare itself");
        }
    }
    ~PausedChild() { end(); }
    PausedChild(PausedChild const&) = delete;
    PausedChild& operator=(PausedChild const&) = delete;

    pid_t pid() const { return pid_; }

    bool is_running() const {
        siginfo_t info{};
        return !reaped_ &&
               waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    void end() {
        if (!reaped_) {
            kill(pid_, SIGKILL);
            ending_signal();
        }
    }

    /// Waits for the child's end and tells which signal it was; 0 for none.
    int ending_signal() {
        int status = 0;
        reaped_ = true;
        return waitpid(pid_, &status, 0) == pid_ && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    [[noreturn]] static void live(std::function<bool()> const& prepare, OnTerm on_term,
                                  int tell_ready) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::signal(SIGTERM, on_term == OnTerm::die ? SIG_DFL : SIG_IGN);
        if (!prepare() || !write_all(tell_ready, "r")) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
};

} // namespace tessaron::test
