#pragma once

#include "app/instance_lock.hpp"
#include "app/utilities/file_io.hpp"
#include "logger/LogLevel.hpp"

#include <functional>
#include <string>

namespace tessaron {

/// What to do if another instance of the application runs already.
enum class InstancePolicy { warn = 0, wait = 1, kill = 2 };

/// At most one process per application name on a machine: an advisory lock on a file in /tmp, which
/// the kernel drops when the process dies, however it dies. While held, the file tells who holds it
/// ("pid=", "path=" and "user=" lines); its text means nothing otherwise, and it stays in place.
///
/// Everything that happens is said on the standard error stream and to `report`.
///
/// Ownership: holds the lock until `release_signal_safe` or its end.
/// Thread safety: one thread at a time, the caller's duty; `release_signal_safe` is
/// async-signal-safe.
/// Errors: reported in words; the lock is then not held.
class InstanceLock {
public:
    using Report = std::function<void(LogLevel, std::string const& text)>;

    /// Takes nothing yet. `executable_path` and `user_name` are what the holder's text will tell.
    InstanceLock(std::string app_name, std::string executable_path, std::string user_name,
                 Report report);
    ~InstanceLock();
    InstanceLock(InstanceLock const&) = delete;
    InstanceLock& operator=(InstanceLock const&) = delete;

    bool is_held() const noexcept { return held_; }
    /// What the present holder says of itself; empty while the lock is held by this process.
    std::string const& holder_info() const noexcept { return holder_info_; }

    // The three below do nothing while the lock is held.

    /// Tries once, and reads the holder's text on a failure.
    void acquire_single_instance_lock();
    /// Waits for the holder to exit, without a time limit, and takes the lock.
    void wait_for_single_instance();
    /// Ends the holder, by SIGTERM and 3 seconds later by SIGKILL, and takes the lock. Ends nobody
    /// if the holder's text names no process.
    void kill_existing_instance_and_wait();

    /// Gives the lock up, also on behalf of a child between fork and exec that shares it.
    void release_signal_safe() noexcept;

private:
    void mark_lock_acquired_if_current();
    void mark_lock_acquired();
    void terminate_and_take_over(pid_t holder);
    /// Opens the lock file into `fd_`; says why where that fails.
    bool open_lock_file();
    void say(LogLevel level, std::string const& text) const;

    std::string const app_name_;
    std::string const executable_path_;
    std::string const user_name_;
    Report const report_;
    UniqueFd fd_;
    bool held_ = false;
    std::string holder_info_;
};

} // namespace tessaron
