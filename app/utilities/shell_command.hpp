#pragma once

#include <optional>
#include <stop_token>
#include <string>

namespace tessaron {

/// Runs `sh -c command` and waits for it, as `system()` does, with three differences that a daemon
/// of many threads needs: the child gets default signal dispositions and an empty signal mask
/// while the caller's stay untouched, it runs in a process group of its own, and a stop request
/// ends that whole group (SIGTERM, then SIGKILL after `K_SHELL_STOP_GRACE`).
///
/// Standard streams are inherited. Every value in `command` must have gone through `shell_quote`.
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

/// As `run_shell`, with the command's standard output read into memory (as `popen(..., "r")`).
/// Empty when no shell could be started or `stop` had been requested before.
[[nodiscard]] std::optional<ShellOutput> capture_shell(std::string const& command,
                                                       std::stop_token const& stop = {});

} // namespace tessaron
