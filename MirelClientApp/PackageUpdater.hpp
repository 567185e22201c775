#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace mirelclient {

/// How far the last update of a package has come.
struct UpdateStatus {
    std::string phase; ///< "downloading", "installing", "starting", "done" or "error"
    std::string error; ///< Empty unless the phase is "error".
    std::string target_version;
};

/// Updates packages in the background, each request on a thread of its own, and remembers the last
/// status of each.
///
///     (nothing) -> downloading -> installing -> starting -> done
///                      |              |            |
///                      +--------------+------------+------> error
///
/// Two updates of one package run side by side; the installs themselves are ordered by the package
/// service, and the later status write wins.
///
/// Ownership: the steps are called on the update threads, with no lock held, and may block. They
/// and what they refer to must stay alive until `wait_until_idle` has returned true, or the
/// destructor has: it waits for the updates under way, so whatever the steps may be blocked in is
/// ended first.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: in the status. An update whose thread cannot be started is in "error" at once.
class PackageUpdater {
public:
    /// One update, as asked for.
    struct Request {
        std::string name;
        std::string version;
        std::string arch;
        std::string channel; ///< Empty means "main".
    };

    /// Each step gives an error's text, or an empty one on success.
    struct Steps {
        std::function<std::string(Request const&)> download;
        std::function<std::string(Request const&)> install;
        std::function<std::string(Request const&)> start;
    };

    explicit PackageUpdater(Steps steps);
    ~PackageUpdater();
    PackageUpdater(PackageUpdater const&) = delete;
    PackageUpdater& operator=(PackageUpdater const&) = delete;

    /// Returns as soon as the thread runs.
    void run_update_async(Request request) TESSARON_EXCLUDES(mutex_);

    /// The last update's status; an empty phase for a package that was never updated.
    UpdateStatus status(std::string const& name) const TESSARON_EXCLUDES(mutex_);

    /// False if updates are under way still when `time` has passed.
    [[nodiscard]] bool wait_until_idle(std::chrono::milliseconds time) TESSARON_EXCLUDES(mutex_);

private:
    void run(Request const& request) TESSARON_EXCLUDES(mutex_);
    void set_status(Request const& request, char const* phase, std::string error)
        TESSARON_EXCLUDES(mutex_);

    Steps const steps_;
    mutable tessaron::Mutex mutex_;
    std::condition_variable idle_;
    std::size_t running_ TESSARON_GUARDED_BY(mutex_) = 0;
    /// An entry is never removed.
    std::map<std::string, UpdateStatus> statuses_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace mirelclient
