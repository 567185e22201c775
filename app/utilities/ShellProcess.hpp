#pragma once

#include "app/utilities/file_io.hpp"

#include <chrono>
#include <memory>
#include <string>
#include <sys/types.h>

namespace tessaron {

/// How often a shell without an end event is looked at.
inline constexpr std::chrono::milliseconds K_POLL_WITHOUT_END_EVENT{20};

/// A running shell that leads a process group of its own, from its start to its reaping. The
/// process id, and with it the group's, stays reserved until `reap`: a signal can't hit a stranger.
///
/// Ownership: the destructor kills the group and reaps the shell if nobody did.
/// Thread safety: one thread at a time, the caller's duty.
class ShellProcess {
public:
    /// Starts `sh -c command` with default signal dispositions, an empty signal mask and
    /// descriptors 0, 1 and 2 only. `standard_output` becomes its descriptor 1; -1 lets it inherit
    /// the caller's. Null when no process could be made.
    [[nodiscard]] static std::unique_ptr<ShellProcess> start(std::string const& command,
                                                             int standard_output = -1);
    /// Takes over a child that leads a group already and that nobody else waits for.
    explicit ShellProcess(pid_t pid);
    ~ShellProcess();
    ShellProcess(ShellProcess const&) = delete;
    ShellProcess& operator=(ShellProcess const&) = delete;

    /// A descriptor that polls readable once the shell has ended, or -1 when the system has none to
    /// give; `has_ended` tells the truth in either case.
    int end_event() const noexcept { return end_event_.get(); }
    /// True once the shell itself has ended, whatever else of its group may live on.
    bool has_ended() const;
    /// Waits until `has_ended`, and no longer than `limit`; false if it has not.
    [[nodiscard]] bool wait_for_end(std::chrono::milliseconds limit) const;
    pid_t pid() const noexcept { return pid_; }
    /// To the whole group. Only before `reap`.
    void signal_group(int signal) const;
    /// Waits for the end and returns the wait status, or -1 if someone else collected it.
    int reap();

private:
    pid_t pid_;
    UniqueFd end_event_;
    bool reaped_ = false;
};

} // namespace tessaron
