#include "MirelClientApp/console/ConsoleExecutor.hpp"

#include "app/utilities/ShellProcess.hpp"
#include "app/utilities/SpawnPlan.hpp"
#include "app/utilities/StopEvent.hpp"
#include "app/utilities/file_io.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mirelclient {

using tessaron::ShellProcess;
using tessaron::StopEvent;
using tessaron::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t K_READ_SIZE = 4096;
constexpr std::chrono::milliseconds K_POLL_PAUSE{20};
constexpr int K_CANNOT_EXECUTE = 127;

/// What is kept of a command's output. Only what comes when it is full already makes it a
/// truncated one.
class CapturedOutput {
public:
    void add(std::string_view piece) {
        truncated_ = truncated_ || text_.size() == ConsoleExecutor::K_MAX_OUTPUT;
        text_.append(piece.substr(0, ConsoleExecutor::K_MAX_OUTPUT - text_.size()));
    }
    void append_truncation_note() {
        if (truncated_) {
            text_ += "\n[...output truncated at 1 MiB...]";
        }
    }
    std::string& text() { return text_; }

private:
    std::string text_;
    bool truncated_ = false;
};

/// One command from its start to its end, on the thread that waits for it; as that thread alone
/// signals and reaps the shell, no signal can go astray.
class CommandRun {
public:
    CommandRun(ShellProcess& shell, UniqueFd output, StopEvent const& stop,
               Clock::time_point deadline)
        : shell_(shell), output_(std::move(output)), stop_(stop), deadline_(deadline) {}

    ConsoleExecutor::Result wait_for_child();

private:
    enum class Event { NONE, ENDED, STOPPED };

    Event wait_for_event();
    bool read_output();
    void drain_remaining();
    ConsoleExecutor::Result finish(bool timed_out);

    ShellProcess& shell_;
    UniqueFd output_;
    StopEvent const& stop_;
    Clock::time_point deadline_;
    CapturedOutput captured_;
};

ConsoleExecutor::Result CommandRun::wait_for_child() {
    for (;;) {
        Event const event = wait_for_event();
        if (event == Event::ENDED) {
            drain_remaining();
            return finish(/*timed_out=*/false);
        }
        // Not only when there is nothing to read: some commands never stop printing.
        bool const timed_out = Clock::now() >= deadline_;
        if (timed_out || event == Event::STOPPED) {
            shell_.signal_group(SIGKILL);
            return finish(timed_out);
        }
    }
}

/// Sleeps for a pause at most, until something happens, and reads one piece if there is output.
CommandRun::Event CommandRun::wait_for_event() {
    // poll() skips what is closed or was never there.
    std::array<pollfd, 3> waited{{{output_.get(), POLLIN, 0},
                                  {shell_.end_event(), POLLIN, 0},
                                  {stop_.descriptor(), POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), static_cast<int>(K_POLL_PAUSE.count())) < 0) {
        return Event::NONE;
    }
    if (waited[0].revents != 0 && !read_output()) {
        output_.reset(); // all writers are gone
    }
    bool const ended = shell_.end_event() >= 0 ? waited[1].revents != 0 : shell_.has_ended();
    if (ended) {
        return Event::ENDED;
    }
    return waited[2].revents != 0 ? Event::STOPPED : Event::NONE;
}

/// False at the end of the output.
bool CommandRun::read_output() {
    std::array<char, K_READ_SIZE> piece;
    ssize_t const got = ::read(output_.get(), piece.data(), piece.size());
    if (got > 0) {
        captured_.add(std::string_view(piece.data(), static_cast<std::size_t>(got)));
    }
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

/// Reads what the pipe holds at this moment, and no more: a job in the background may go on
/// printing for ever.
void CommandRun::drain_remaining() {
    int there = 0;
    if (!output_.is_open() || ::ioctl(output_.get(), FIONREAD, &there) != 0) {
        return;
    }
    auto left = static_cast<std::size_t>(std::max(there, 0));
    std::array<char, K_READ_SIZE> piece;
    while (left > 0) {
        ssize_t const got = ::read(output_.get(), piece.data(), std::min(left, piece.size()));
        if (got <= 0) {
            return;
        }
        captured_.add(std::string_view(piece.data(), static_cast<std::size_t>(got)));
        left -= static_cast<std::size_t>(got);
    }
}

ConsoleExecutor::Result CommandRun::finish(bool timed_out) {
    output_.reset();
    int const status = shell_.reap();
    captured_.append_truncation_note();
    bool const exited = !timed_out && WIFEXITED(status);
    return {exited ? WEXITSTATUS(status) : -1, std::move(captured_.text()), timed_out};
}

/// Starts the shell with its output on the pipe; -1 with `errno` set if there is none.
pid_t run_child(std::string command, int write_end) {
    tessaron::SpawnPlan plan;
    plan.lead_own_session();
    plan.forget_signal_state();
    plan.redirect(write_end, STDOUT_FILENO);
    plan.redirect(write_end, STDERR_FILENO);
    plan.close_from(STDERR_FILENO + 1);
    std::string name = "sh";
    std::string option = "-c";
    char* const arguments[] = {name.data(), option.data(), command.data(), nullptr};
    return plan.spawn("/bin/sh", arguments);
}

ConsoleExecutor::Result failure(std::string const& what) {
    return {-1, what + std::strerror(errno), false};
}

} // namespace

ConsoleExecutor::Result ConsoleExecutor::exec(std::string const& command,
                                              int timeout_seconds) const {
    auto const deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
    if (stop_.stop_requested()) {
        return {};
    }
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return failure("pipe() failed: ");
    }
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    StopEvent const stop(stop_);
    if (!stop.is_usable()) {
        return failure("eventfd() failed: ");
    }
    pid_t const pid = run_child(command, write_end.get());
    if (pid < 0) {
        bool const no_process = errno == EAGAIN || errno == ENOMEM;
        return no_process ? failure("fork() failed: ") : Result{K_CANNOT_EXECUTE, "", false};
    }
    write_end.reset(); // else the end of the output would never come
    ::fcntl(read_end.get(), F_SETFL, O_NONBLOCK);
    ShellProcess shell(pid);
    return CommandRun(shell, std::move(read_end), stop, deadline).wait_for_child();
}

} // namespace mirelclient
