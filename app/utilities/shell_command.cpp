#include "app/utilities/shell_command.hpp"

#include "app/utilities/ShellProcess.hpp"
#include "app/utilities/StopEvent.hpp"
#include "app/utilities/file_io.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <tuple>
#include <unistd.h>

namespace tessaron {
namespace {

/// One command from start to end, on the thread that waits for it. Since that thread alone signals
/// the shell and reaps it, no signal can go astray.
class ShellRun {
public:
    ShellRun(ShellProcess& shell, StopEvent const& stop, UniqueFd output)
        : shell_(shell), stop_(stop), output_(std::move(output)) {}

    /// Returns the wait status; the output is in `text()`.
    int wait_for_end();
    std::string& text() noexcept { return text_; }

private:
    /// Sleeps until something happens or `limit` passes; true when a stop was requested.
    bool sleep_until_event(std::chrono::milliseconds limit);
    void read_output();
    void end_group();

    ShellProcess& shell_;
    StopEvent const& stop_;
    UniqueFd output_;
    std::string text_;
    bool shell_ended_ = false;
};

int ShellRun::wait_for_end() {
    std::chrono::milliseconds const limit =
        shell_.end_event() >= 0 ? std::chrono::milliseconds(-1) : K_POLL_WITHOUT_END_EVENT;
    while (!shell_ended_ || output_.is_open()) {
        if (sleep_until_event(limit)) {
            end_group();
            break;
        }
        shell_ended_ = shell_.has_ended();
    }
    return shell_.reap();
}

bool ShellRun::sleep_until_event(std::chrono::milliseconds limit) {
    // poll() skips negative descriptors: those that we don't have or no longer care for.
    std::array<pollfd, 3> events{{{stop_.descriptor(), POLLIN, 0},
                                  {output_.get(), POLLIN, 0},
                                  {shell_ended_ ? -1 : shell_.end_event(), POLLIN, 0}}};
    if (poll(events.data(), events.size(), static_cast<int>(limit.count())) <= 0) {
        return false;
    }
    if (events[1].revents != 0) {
        read_output();
    }
    return events[0].revents != 0;
}

void ShellRun::read_output() {
    std::array<char, 16384> chunk;
    ssize_t const count = read(output_.get(), chunk.data(), chunk.size());
    if (count > 0) {
        text_.append(chunk.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        output_.reset();
    }
}

void ShellRun::end_group() {
    shell_.signal_group(SIGTERM);
    std::ignore = shell_.wait_for_end(K_SHELL_STOP_GRACE);
    // The rest of the group, and the shell if it ignored the first signal.
    shell_.signal_group(SIGKILL);
}

struct Pipe {
    UniqueFd read_end;
    UniqueFd write_end;
};

std::optional<Pipe> make_pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

} // namespace

int run_shell(std::string const& command, std::stop_token const& stop) {
    StopEvent const stop_event(stop);
    if (!stop_event.is_usable() || stop.stop_requested()) {
        return -1;
    }
    auto const shell = ShellProcess::start(command);
    return shell != nullptr ? ShellRun(*shell, stop_event, UniqueFd()).wait_for_end() : -1;
}

std::optional<ShellOutput> capture_shell(std::string const& command, std::stop_token const& stop) {
    StopEvent const stop_event(stop);
    auto pipe = make_pipe();
    if (!pipe || !stop_event.is_usable() || stop.stop_requested()) {
        return std::nullopt;
    }
    auto const shell = ShellProcess::start(command, pipe->write_end.get());
    if (shell == nullptr) {
        return std::nullopt;
    }
    pipe->write_end.reset(); // else the end of the output would never come
    ShellRun run(*shell, stop_event, std::move(pipe->read_end));
    int const status = run.wait_for_end();
    return ShellOutput{status, std::move(run.text())};
}

} // namespace tessaron
