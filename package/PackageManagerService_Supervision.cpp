// Starting, stopping and supervising the packages' processes. Operations run on their callers'
// threads, `supervise_loop` is the thread "pkg-supervisor"; the state is the entries' `pid`,
// `started_at` and `administratively_stopped`, under the service's lock.
#include "package/PackageManagerService.hpp"
#include "package/child_process.hpp"
#include "package/spawn_package.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <tuple>

namespace tessaron {

namespace {

// Ends a child and reaps it: asks first, and makes it after the grace period.
void end_process(pid_t pid) {
    using Clock = std::chrono::steady_clock;
    if (child_process::has_ended(pid)) {
        return;
    }
    child_process::send_signal(pid, SIGTERM);
    auto const deadline = Clock::now() + K_PACKAGE_MANAGER_STOP_GRACE;
    while (Clock::now() < deadline) {
        if (child_process::has_ended(pid)) {
            return;
        }
        std::this_thread::sleep_for(K_PACKAGE_MANAGER_STOP_POLL);
    }
    child_process::send_signal(pid, SIGKILL);
    child_process::wait_for_end(pid);
}

} // namespace

PackageManagerReply PackageManagerService::start(std::string const& name) {
    MutexLock lock(mutex_);
    return start_locked(name);
}

PackageManagerReply PackageManagerService::stop(std::string const& name) {
    MutexLock lock(mutex_);
    return stop_locked(name);
}

PackageManagerReply PackageManagerService::restart(std::string const& name) {
    MutexLock lock(mutex_);
    PackageManagerReply stopped = stop_locked(name);
    return stopped.ok ? start_locked(name) : stopped;
}

PackageManagerReply PackageManagerService::start_locked(std::string const& name) {
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return PackageManagerReply::failure("start: \"" + name + "\" is not installed");
    }
    PackageEntry& entry = found->second;
    if (entry.pid >= 1) {
        return PackageManagerReply::success();
    }
    std::string const executable = entry.manifest.at("executable").as_string("");
    if (executable.empty()) {
        return PackageManagerReply::failure("start: manifest has no \"executable\" field");
    }
    pid_t const pid = spawn_package(
        {entry.install_path + "/" + executable, entry.launch_args, entry.install_path});
    if (pid < 0) {
        return PackageManagerReply::failure(std::string("start: fork() failed: ") +
                                            std::strerror(errno));
    }
    entry.pid = pid;
    entry.started_at = std::time(nullptr);
    entry.administratively_stopped = false;
    save_registry();
    return PackageManagerReply::success();
}

PackageManagerReply PackageManagerService::stop_locked(std::string const& name) {
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return PackageManagerReply::failure("stop: \"" + name + "\" is not installed");
    }
    PackageEntry& entry = found->second;
    entry.administratively_stopped = true;
    if (entry.pid >= 1) {
        end_process(entry.pid);
        entry.pid = -1;
    }
    save_registry();
    return PackageManagerReply::success();
}

void PackageManagerService::supervise_once(RespawnCooldown& cooldown,
                                           RespawnCooldown::Clock::time_point now) {
    MutexLock lock(mutex_);
    bool const look_at_each = child_process::some_child_may_have_ended();
    if (look_at_each) {
        inherited_.reap_ended();
    }
    for (auto& [name, entry] : entries_) {
        if (entry.pid >= 1 && look_at_each && child_process::has_ended(entry.pid)) {
            entry.pid = -1;
        }
        if (entry.pid < 1 && !entry.administratively_stopped && cooldown.try_attempt(name, now)) {
            // A start that fails is tried again after the cooldown, for ever.
            std::ignore = start_locked(name);
        }
    }
}

void PackageManagerService::supervise_loop() {
    RespawnCooldown cooldown;
    while (!stop_requested_) {
        {
            MutexLock lock(wake_mutex_);
            if (wake_.wait_for(lock.native(), supervise_poll_,
                               [this] { return stop_requested_.load(); })) {
                return;
            }
        }
        try {
            supervise_once(cooldown, RespawnCooldown::Clock::now());
        } catch (std::exception const&) {
            // Out of memory: the packages must not lose their supervisor, so the next pass tries
            // again.
        }
    }
}

} // namespace tessaron
