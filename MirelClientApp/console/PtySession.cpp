#include "MirelClientApp/console/PtySession.hpp"

#include "MirelClientApp/console/session_groups.hpp"
#include "app/utilities/SpawnPlan.hpp"
#include "app/utilities/StopEvent.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace mirelclient {

using tessaron::ShellProcess;
using tessaron::StopEvent;
using tessaron::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view K_TERM_NAME = "TERM=";
constexpr char const* K_TERM_ASSIGNMENT = "TERM=xterm-256color";
/// How often a hung-up job is looked at that is no child of this process.
constexpr std::chrono::milliseconds K_JOB_POLL{10};

bool set_window_size(int master, std::uint16_t cols, std::uint16_t rows) {
    winsize size{};
    size.ws_col = cols;
    size.ws_row = rows;
    return ::ioctl(master, TIOCSWINSZ, &size) == 0;
}

std::vector<char*> terminal_environment() {
    std::vector<char*> environment;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (!std::string_view(*variable).starts_with(K_TERM_NAME)) {
            environment.push_back(*variable);
        }
    }
    environment.push_back(const_cast<char*>(K_TERM_ASSIGNMENT));
    environment.push_back(nullptr);
    return environment;
}

/// What forkpty does, but with descriptors that are close-on-exec from birth: another thread's
/// child that got the master side would keep the terminal from ever being hung up.
UniqueFd open_master() {
    UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    if (master.is_open() &&
        (::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
         !set_window_size(master.get(), PtySession::K_INITIAL_COLS, PtySession::K_INITIAL_ROWS))) {
        master.reset();
    }
    return master;
}

pid_t start_shell(int master) {
    std::array<char, 128> terminal;
    if (::ptsname_r(master, terminal.data(), terminal.size()) != 0) {
        return -1;
    }
    tessaron::SpawnPlan plan;
    plan.lead_own_session();
    plan.forget_signal_state();
    plan.open(STDIN_FILENO, terminal.data(), O_RDWR);
    plan.redirect(STDIN_FILENO, STDOUT_FILENO);
    plan.redirect(STDIN_FILENO, STDERR_FILENO);
    plan.close_from(STDERR_FILENO + 1);
    std::string name = "sh";
    char* const arguments[] = {name.data(), nullptr};
    return plan.spawn("/bin/sh", arguments, terminal_environment().data());
}

} // namespace

std::unique_ptr<PtySession> PtySession::spawn(std::stop_token stop) {
    UniqueFd master = open_master();
    UniqueFd interrupted(::eventfd(0, EFD_CLOEXEC));
    if (!master.is_open() || !interrupted.is_open()) {
        return nullptr;
    }
    pid_t const child_pid = start_shell(master.get());
    if (child_pid < 0) {
        return nullptr;
    }
    return std::unique_ptr<PtySession>(
        new PtySession(std::move(master), std::move(interrupted), child_pid, std::move(stop)));
}

PtySession::PtySession(UniqueFd master, UniqueFd interrupted, pid_t child_pid, std::stop_token stop)
    : master_(std::move(master)), interrupted_(std::move(interrupted)),
      shell_(std::make_unique<ShellProcess>(child_pid)), stop_(std::move(stop)) {
}

PtySession::~PtySession() {
    terminate();
}

void PtySession::resize(std::uint16_t cols, std::uint16_t rows) {
    if (master_.is_open()) {
        set_window_size(master_.get(), cols, rows);
    }
}

std::size_t PtySession::read_output(void* buffer, std::size_t size) {
    for (;;) {
        ssize_t const got = ::read(master_.get(), buffer, size);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        bool const try_again =
            errno == EINTR || (errno == EAGAIN && wait_for_master(POLLIN, /*peer=*/-1));
        if (!try_again) {
            return 0;
        }
    }
}

std::size_t PtySession::read_more_output(void* buffer, std::size_t size) {
    ssize_t const got = ::read(master_.get(), buffer, size);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool PtySession::write_input(std::string_view keys, int peer) {
    while (!keys.empty()) {
        ssize_t const taken = ::write(master_.get(), keys.data(), keys.size());
        if (taken > 0) {
            keys.remove_prefix(static_cast<std::size_t>(taken));
            continue;
        }
        bool const full = taken == 0 || errno == EAGAIN;
        bool const try_again = full ? wait_for_master(POLLOUT, peer) : errno == EINTR;
        if (!try_again) {
            return false;
        }
    }
    return true;
}

void PtySession::interrupt() {
    ::eventfd_write(interrupted_.get(), 1);
}

bool PtySession::wait_for_master(short events, int peer) const {
    std::array<pollfd, 3> waited{
        {{master_.get(), events, 0}, {interrupted_.get(), POLLIN, 0}, {peer, POLLRDHUP, 0}}};
    while (::poll(waited.data(), waited.size(), -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    // Of what a shell that has ended left behind, the rest is still read; nothing is written to it.
    bool const hung_up = events == POLLOUT && (waited[0].revents & (POLLHUP | POLLERR)) != 0;
    return !hung_up && waited[1].revents == 0 && waited[2].revents == 0;
}

void PtySession::terminate() {
    pid_t const foreground_group = master_.is_open() ? ::tcgetpgrp(master_.get()) : -1;
    master_.reset();
    if (shell_ == nullptr) {
        return;
    }
    shell_->signal_group(SIGHUP);
    if (foreground_group > 0 && foreground_group != shell_->pid()) {
        ::kill(-foreground_group, SIGHUP);
    }
    wait_for_shell(foreground_group);
    shell_->reap();
    shell_.reset();
}

void PtySession::wait_for_shell(pid_t foreground_group) const {
    StopEvent const stop(stop_);
    int const limit = shell_->end_event() >= 0 && stop.is_usable()
                          ? -1
                          : static_cast<int>(tessaron::K_POLL_WITHOUT_END_EVENT.count());
    for (;;) {
        if (stop_.stop_requested()) {
            end_by_force(foreground_group);
            return;
        }
        if (shell_->has_ended()) {
            return;
        }
        std::array<pollfd, 2> waited{
            {{shell_->end_event(), POLLIN, 0}, {stop.descriptor(), POLLIN, 0}}};
        ::poll(waited.data(), waited.size(), limit);
    }
}

void PtySession::end_by_force(pid_t foreground_group) const {
    SessionGroups const groups{shell_->pid(), foreground_group};
    auto const deadline = Clock::now() + K_HANGUP_GRACE;
    while (groups.some_live() && Clock::now() < deadline) {
        bool const shell_ended = shell_->has_ended();
        pollfd end{shell_ended ? -1 : shell_->end_event(), POLLIN, 0};
        ::poll(&end, 1, static_cast<int>(K_JOB_POLL.count()));
    }
    groups.kill_all();
}

} // namespace mirelclient
