#pragma once

#include "app/utilities/ShellProcess.hpp"
#include "app/utilities/file_io.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string_view>
#include <sys/types.h>

namespace mirelclient {

/// A shell on a pseudo-terminal of its own, 24 rows by 80 columns at first.
///
/// `read_output` and `write_input` block, but never against `interrupt`: whoever ends a session
/// interrupts it, waits for the threads that use it, and only then terminates it, so that nobody
/// ever uses a descriptor that has become another file's.
///
/// Ownership: the terminal's master side and the shell; the destructor calls `terminate`.
/// Thread safety: `read_output` on one thread, `write_input` and `resize` on another one,
/// `interrupt` on any; `terminate` when none of them runs any more, the caller's duty.
/// Errors: `spawn` returns null; whatever the terminal refuses later is as if the shell had ended.
class PtySession {
public:
    static constexpr std::uint16_t K_INITIAL_ROWS = 24;
    static constexpr std::uint16_t K_INITIAL_COLS = 80;
    /// What a shell that was hung up gets to end by itself once a stop was requested.
    static constexpr std::chrono::milliseconds K_HANGUP_GRACE{400};

    /// Starts /bin/sh with this process's environment, in which TERM is "xterm-256color". A stop
    /// request puts a limit to `terminate`, and does nothing else.
    [[nodiscard]] static std::unique_ptr<PtySession> spawn(std::stop_token stop = {});
    ~PtySession();
    PtySession(PtySession const&) = delete;
    PtySession& operator=(PtySession const&) = delete;

    /// -1 once terminated. Does not block: see `read_output` and `write_input`.
    int master_fd() const noexcept { return master_.get(); }

    void resize(std::uint16_t cols, std::uint16_t rows);

    /// Blocks for output and returns the size of the piece that was read; 0 once the shell has
    /// ended and nobody else holds its terminal, and after `interrupt`.
    [[nodiscard]] std::size_t read_output(void* buffer, std::size_t size);
    /// The same without blocking; 0 also if there is none at the moment.
    [[nodiscard]] std::size_t read_more_output(void* buffer, std::size_t size);

    /// Writes all of it, and blocks while the terminal takes no more; false if the rest was given
    /// up because meanwhile the shell ended, the session was interrupted, or the other side of
    /// `peer`, the socket that the keys came from (-1: none), was closed.
    [[nodiscard]] bool write_input(std::string_view keys, int peer = -1);

    /// From now on nothing blocks: output that is there is still read.
    void interrupt();

    /// Closes the master side, which hangs the terminal up, sends SIGHUP to the shell and to the
    /// job in its foreground, and waits for the shell to end, as long as that takes. A shell that
    /// ignores the signal blocks the call for as long as it runs, or until a stop is requested:
    /// then it gets `K_HANGUP_GRACE`, and after that SIGKILL, with the job in the foreground.
    /// May be repeated.
    void terminate();

private:
    PtySession(tessaron::UniqueFd master, tessaron::UniqueFd interrupted, pid_t child_pid,
               std::stop_token stop);

    /// Sleeps until the master side is ready; false if there is no point in it.
    bool wait_for_master(short events, int peer) const;
    void wait_for_shell(pid_t foreground_group) const;
    void end_by_force(pid_t foreground_group) const;

    tessaron::UniqueFd master_;
    tessaron::UniqueFd interrupted_; ///< an event that stays raised
    std::unique_ptr<tessaron::ShellProcess> shell_;
    std::stop_token stop_;
};

} // namespace mirelclient
