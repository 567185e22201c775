#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "package/InheritedChildren.hpp"
#include "package/RespawnCooldown.hpp"
#include "package/package_records.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace tessaron::bus {
class LocalClient;
}

namespace tessaron {

/// Sleep between two passes of the supervisor.
inline constexpr std::chrono::milliseconds K_PACKAGE_MANAGER_SUPERVISE_POLL{1000};
/// From SIGTERM to SIGKILL.
inline constexpr std::chrono::seconds K_PACKAGE_MANAGER_STOP_GRACE{3};
/// Sleep between two looks at a stopping child.
inline constexpr std::chrono::milliseconds K_PACKAGE_MANAGER_STOP_POLL{50};

/// Owns the packages installed on this machine: their files below the store root, the list of them
/// in `registry.json`, and their processes. It touches local files only and never logs; every
/// outcome is in the reply.
///
///     <store_root>/registry.json                       what is installed and what is wanted
///     <store_root>/store/<name>/<version>              an installed package
///     <store_root>/store/<name>/<version>.staging      an install in progress
///
/// A package is wanted up unless an operator stopped it. Its states, as `list_installed` tells:
///
///     running   pid >= 1             the process ends -> down (seen by the next pass), stop ->
///     stopped down      pid < 1              the supervisor starts it at the next pass the
///     cooldown allows stopped   pid < 1, and marked  only start, restart or a new install leave it
///
/// Nothing of a running process survives this object: children are left running at destruction,
/// and the next object on the same store neither adopts nor signals them.
///
/// Ownership: its supervisor thread, its node on the bus and the reaping of its children. Nobody
/// else may wait for them.
/// Thread safety: safe from any thread; one internal lock, held for the whole of every operation,
/// shell commands, package scripts and the stop of a process included. There is only ever one
/// change to the store at a time, and an install cannot race with a respawn.
/// Errors: a reply with `ok` false. A registry that cannot be written is not one: what is in memory
/// goes on, and the previous file stays.
class PackageManagerService {
public:
    /// Makes the store, loads its registry, serves what can be asked on the bus and starts the
    /// supervisor, whose first pass comes one `supervise_poll` later. The supervisor reaps the
    /// `inherited` children, too. Without a `client`, which is the service's alone from then on, it
    /// is not on the bus.
    explicit PackageManagerService(
        std::string store_root,
        std::chrono::milliseconds supervise_poll = K_PACKAGE_MANAGER_SUPERVISE_POLL,
        InheritedChildren inherited = {}, std::shared_ptr<bus::LocalClient> client = nullptr);
    /// Calls `request_stop`, leaves the bus, which waits for the request that is being answered,
    /// and waits for the supervisor. No other thread may still be inside.
    ~PackageManagerService();
    PackageManagerService(PackageManagerService const&) = delete;
    PackageManagerService& operator=(PackageManagerService const&) = delete;

    // PackageManagerService.cpp: life and queries

    /// Ends the supervisor and the package script or shell command in progress: an install that has
    /// not begun to move its files into place fails and is rolled back, one that has is completed,
    /// as is an uninstall. May be called repeatedly, and does not wait.
    void request_stop() TESSARON_EXCLUDES(wake_mutex_);

    /// Always succeeds. The data is an array of objects with `name`, `version`, `arch`, `status`
    /// ("running", "stopped" or "down"), `launch_args` and `started_at` (0 unless running). It
    /// tells what the supervisor last saw and does not look at the processes.
    [[nodiscard]] PackageManagerReply list_installed() const TESSARON_EXCLUDES(mutex_);
    /// The installed package's manifest as data.
    [[nodiscard]] PackageManagerReply manifest(std::string const& name) const
        TESSARON_EXCLUDES(mutex_);
    /// Takes effect at the package's next start.
    [[nodiscard]] PackageManagerReply set_launch_args(std::string const& name,
                                                      std::vector<std::string> args)
        TESSARON_EXCLUDES(mutex_);

    // PackageManagerService_Install.cpp

    /// Unpacks, checks and prepares the artifact in the staging directory, then replaces the
    /// package by it. Until the staged files are moved into place, a failure leaves the installed
    /// package untouched and removes the staging directory. Blocks for as long as the package's
    /// install.sh runs. A package that cannot be started is installed all the same.
    [[nodiscard]] PackageManagerReply install(PackageInstallRequest const& request)
        TESSARON_EXCLUDES(mutex_);
    /// Stops the package and removes its files; a failing uninstall.sh does not prevent that.
    [[nodiscard]] PackageManagerReply uninstall(std::string const& name) TESSARON_EXCLUDES(mutex_);

    // PackageManagerService_Supervision.cpp

    /// Success also when it runs already. That the program could not be executed does not show
    /// here: it looks like one that ended at once.
    [[nodiscard]] PackageManagerReply start(std::string const& name) TESSARON_EXCLUDES(mutex_);
    /// Marks the package stopped, for later daemons too, and ends its process: SIGTERM, and
    /// SIGKILL after `K_PACKAGE_MANAGER_STOP_GRACE`.
    [[nodiscard]] PackageManagerReply stop(std::string const& name) TESSARON_EXCLUDES(mutex_);
    [[nodiscard]] PackageManagerReply restart(std::string const& name) TESSARON_EXCLUDES(mutex_);

    /// One pass of the supervisor: takes note of the children that ended and starts every package
    /// that should run, as far as `cooldown` allows at `now`.
    void supervise_once(RespawnCooldown& cooldown, RespawnCooldown::Clock::time_point now)
        TESSARON_EXCLUDES(mutex_);

private:
    // PackageManagerService_Bus.cpp
    void serve_topics();

    std::string registry_path() const;
    void save_registry() const TESSARON_REQUIRES(mutex_);

    PackageManagerReply start_locked(std::string const& name) TESSARON_REQUIRES(mutex_);
    PackageManagerReply stop_locked(std::string const& name) TESSARON_REQUIRES(mutex_);
    void supervise_loop();

    std::string const store_root_;
    std::chrono::milliseconds const supervise_poll_;

    mutable Mutex mutex_;
    PackageEntries entries_ TESSARON_GUARDED_BY(mutex_);
    InheritedChildren inherited_ TESSARON_GUARDED_BY(mutex_);

    Mutex wake_mutex_; ///< Only for sleeping: a stop must get through while `mutex_` is held.
    std::condition_variable wake_;
    std::atomic<bool> stop_requested_{false};
    std::stop_source command_stop_; ///< Ends the shell commands that may be ended.
    std::thread supervisor_;
    std::shared_ptr<bus::LocalClient> client_; ///< Last: its handlers use all of the above.
};

} // namespace tessaron
