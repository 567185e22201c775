#pragma once

#include <chrono>
#include <cstddef>
#include <stop_token>
#include <string>
#include <utility>

namespace mirelclient {

/// Runs one-shot commands and captures what they print on standard output and standard error.
///
/// The command's shell leads a session and a process group of its own; its standard input is this
/// process's, its signals are in their default state. The result is there when the shell has ended:
/// a job that it leaves in the background runs on, even if it still holds the output.
///
/// Thread safety: immutable after construction; calls run in parallel.
/// Errors: `exit_code` -1, and `output` says why if there was no shell.
class ConsoleExecutor {
public:
    struct Result {
        int exit_code = -1; ///< -1 if a signal ended the shell
        std::string output; ///< `K_MAX_OUTPUT` at most, and then a note
        bool timed_out = false;
    };

    static constexpr std::size_t K_MAX_OUTPUT = 1024 * 1024;

    /// After a stop request no further command is run, and those that run are killed.
    explicit ConsoleExecutor(std::stop_token stop = {}) : stop_(std::move(stop)) {}

    /// `sh -c command`, whose process group is killed when the limit has passed, whatever it prints
    /// until then. A shell that cannot be executed gives 127.
    Result exec(std::string const& command, int timeout_seconds) const;

private:
    std::stop_token stop_;
};

} // namespace mirelclient
