#pragma once

#include "app/utilities/file_io.hpp"

#include <cstdio>
#include <fcntl.h>
#include <pty.h>
#include <stdexcept>
#include <unistd.h>

namespace tessaron::test {

/// Makes descriptor 1 a terminal, or something that is none, for as long as it lives.
class RedirectedStandardOutput {
public:
    enum class To { terminal, nothing };

    explicit RedirectedStandardOutput(To target) {
        std::fflush(stdout);
        former_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        UniqueFd const replacement = target == To::terminal ? open_terminal() : open_nothing();
        if (!former_.is_open() || dup2(replacement.get(), STDOUT_FILENO) < 0) {
            throw std::runtime_error("standard output cannot be redirected");
        }
    }
    ~RedirectedStandardOutput() {
        std::fflush(stdout);
        dup2(former_.get(), STDOUT_FILENO);
    }
    RedirectedStandardOutput(RedirectedStandardOutput const&) = delete;
    RedirectedStandardOutput& operator=(RedirectedStandardOutput const&) = delete;

private:
    UniqueFd open_terminal() {
        int controller = -1;
        int terminal = -1;
        if (openpty(&controller, &terminal, nullptr, nullptr, nullptr) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        controller_.reset(controller);
        return UniqueFd(terminal);
    }

    static UniqueFd open_nothing() { return open_file("/dev/null", O_WRONLY); }

    UniqueFd controller_; ///< The terminal lasts as long as its other end.
    UniqueFd former_;
};

} // namespace tessaron::test
