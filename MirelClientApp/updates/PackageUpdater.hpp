#pragma once

#include <chrono>
#include <functional>
#include <memory>
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
/// Ownership: the update threads are detached and own what they touch, but for what the steps refer
/// to: that must stay alive until `wait_until_idle` has returned true, or the destructor has. The
/// destructor waits for the updates under way, so whatever the steps may be blocked in is ended
/// first. Steps are called on the update threads, with no lock held, and may block.
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

    /// Each step gives an error's text, or an empty one on success. An exception is a failure, too.
    struct Steps {
        std::function<std::string(Request const&)> download;
        std::function<std::string(Request const&)> install;
        std::function<std::string(Request const&)> start;
    };

    explicit PackageUpdater(Steps steps);
    ~PackageUpdater();
    PackageUpdater(PackageUpdater const&) = delete;
    PackageUpdater& operator=(PackageUpdater const&) = delete;

    /// Returns as soon as the thread is started; the status is "downloading" by then.
    void run_update_async(Request const& request);

    /// The last update's status; an empty phase for a package that was never updated.
    UpdateStatus status(std::string const& name) const;

    /// False if updates are under way still when `time` has passed.
    [[nodiscard]] bool wait_until_idle(std::chrono::milliseconds time);

private:
    class Updates;

    std::shared_ptr<Updates> const updates_;
};

} // namespace mirelclient
