#include "app/InstanceLock.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>
#include <sys/file.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace tessaron {

InstanceLock::InstanceLock(std::string app_name, std::string executable_path, std::string user_name,
                           Report report)
    : app_name_(std::move(app_name)), executable_path_(std::move(executable_path)),
      user_name_(std::move(user_name)), report_(std::move(report)) {
}

InstanceLock::~InstanceLock() {
    release_signal_safe();
}

void InstanceLock::acquire_single_instance_lock() {
    while (!held_ && open_lock_file()) {
        if (!detail::lock_unless_held(fd_.get())) {
            holder_info_ = detail::read_holder_info(fd_.get());
            fd_.reset();
            return;
        }
        mark_lock_acquired_if_current();
    }
}

void InstanceLock::wait_for_single_instance() {
    if (held_) {
        return;
    }
    say(LogLevel::WARNING, "\"" + app_name_ + "\" is already running" +
                               (holder_info_.empty() ? "" : ":\n" + holder_info_) +
                               "\nWaiting for it to exit...");
    while (!held_ && open_lock_file()) {
        if (!detail::flock_uninterrupted(fd_.get(), LOCK_EX)) {
            fd_.reset();
            return;
        }
        mark_lock_acquired_if_current();
    }
}

void InstanceLock::kill_existing_instance_and_wait() {
    if (held_) {
        return;
    }
    std::optional<pid_t> const holder = detail::holder_pid(holder_info_);
    if (!holder.has_value()) {
        say(LogLevel::ERROR, "--instance-policy=kill: couldn't find a pid= line in the current "
                             "holder's info, not killing anything:\n" +
                                 holder_info_);
    } else if (*holder <= 0) {
        say(LogLevel::ERROR, "--instance-policy=kill: couldn't parse a pid from the current "
                             "holder's info, not killing anything:\n" +
                                 holder_info_);
    } else {
        terminate_and_take_over(*holder);
    }
}

void InstanceLock::terminate_and_take_over(pid_t holder) {
    std::string const pid = std::to_string(holder);
    say(LogLevel::WARNING, "--instance-policy=kill: terminating pid " + pid + " (was holding \"" +
                               app_name_ + "\"'s lock)");
    kill(holder, SIGTERM);
    bool const acquired = detail::poll_within(K_KILL_PATIENCE, [this] {
        acquire_single_instance_lock();
        return held_;
    });
    if (acquired) {
        return;
    }
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(K_KILL_PATIENCE);
    say(LogLevel::WARNING, "--instance-policy=kill: pid " + pid + " didn't exit within " +
                               std::to_string(seconds.count()) + "s of SIGTERM, sending SIGKILL");
    kill(holder, SIGKILL);
    wait_for_single_instance();
}

void InstanceLock::release_signal_safe() noexcept {
    int const saved_errno = errno;
    if (fd_.is_open()) {
        // The lock belongs to the open file, which a child shares until its exec; closing this
        // end alone would leave it locked. `flock` is a bare system call.
        flock(fd_.get(), LOCK_UN);
        fd_.reset();
    }
    held_ = false;
    errno = saved_errno;
}

/// An instance that ended may have deleted the file after it was opened here.
void InstanceLock::mark_lock_acquired_if_current() {
    if (detail::is_file_at(detail::make_lock_file_path(app_name_), fd_.get())) {
        mark_lock_acquired();
    }
}

void InstanceLock::mark_lock_acquired() {
    std::string const text = "pid=" + std::to_string(getpid()) + "\npath=" + executable_path_ +
                             "\nuser=" + user_name_ + "\n";
    // The lock holds without the text, too; it only tells others who is in their way. One write,
    // so that nobody reads half of it.
    std::ignore = ftruncate(fd_.get(), 0);
    std::ignore = pwrite(fd_.get(), text.data(), text.size(), 0);
    held_ = true;
    holder_info_.clear();
}

bool InstanceLock::open_lock_file() {
    std::string const path = detail::make_lock_file_path(app_name_);
    fd_ = detail::open_lock_file(path);
    if (!fd_.is_open()) {
        std::string const cause = std::strerror(errno);
        say(LogLevel::ERROR, "Failed to open lock file " + path + ": " + cause);
    }
    return fd_.is_open();
}

void InstanceLock::say(LogLevel level, std::string const& text) const {
    std::cerr << text + "\n";
    if (report_) {
        report_(level, text);
    }
}

} // namespace tessaron
