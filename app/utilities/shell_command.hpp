#pragma once

#include <chrono>
#include <optional>
#include <stop_token>
#include <string>

namespace tessaron {

/// What a shell that was asked to stop gets to end by itself.
inline constexpr std::chrono::milliseconds K_SHELL_STOP_GRACE{1000};

/// Runs `sh -c command` and waits for it, as `system()` does, with three differences that a daemon
/// of many threads needs: the child gets default signal dispositions and an empty signal mask
/// while the caller's stay untouched, it runs in a process group of its own, and a stop request
/// ends that whole group: SIGTERM, and SIGKILL to what is left of it when the shell has ended or
/// `K_SHELL_STOP_GRACE` has passed. The thread that waits sends the signals; a stop request itself
/// never blocks.
///
/// Descriptors 0, 1 and 2 are inherited, and no others. Every value in `command` must have gone
/// through `shell_quote`.
///
/// Returns the wait status (0 means the command succeeded), or -1 when no shell could be started or
/// `stop` had been requested before. Blocks without a limit otherwise.
///
/// Thread safety: safe from any thread.
[[nodiscard]] int run_shell(std::string const& command, std::stop_token const& stop = {});

struct ShellOutput {
    int status = -1;  ///< As `run_shell` returns it.
    std::string text; ///< All that the command wrote to its standard output.
};

/// As `run_shell`, with the command's standard output read into memory (as `popen(..., "r")`): it
/// returns when the shell has ended and every process that got its output has closed it, or after a
/// stop request, with what had been read until then.
/// Empty when no shell could be started or `stop` had been requested before.
[[nodiscard]] std::optional<ShellOutput> capture_shell(std::string const& command,
                                                       std::stop_token const& stop = {});

} // namespace tessaron
