#include "MirelClientApp/updates/PackageUpdater.hpp"

#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <map>
#include <utility>

namespace mirelclient {

using tessaron::Mutex;
using tessaron::MutexLock;

/// What the update threads share with the updater, and keep alive until the last of them is gone.
class PackageUpdater::Updates {
public:
    explicit Updates(Steps steps) : steps_(std::move(steps)) {}

    /// An update begins on the thread that asks, so that whoever asks for the status afterwards
    /// does not get that of an earlier update.
    void begin(Request const& request) TESSARON_EXCLUDES(mutex_);
    /// The body of an update's thread.
    void run(Request const& request) TESSARON_EXCLUDES(mutex_);
    void end_in_error(Request const& request, std::string error) TESSARON_EXCLUDES(mutex_);

    UpdateStatus status(std::string const& name) const TESSARON_EXCLUDES(mutex_);
    void wait_until_idle() TESSARON_EXCLUDES(mutex_);
    bool wait_until_idle(std::chrono::milliseconds time) TESSARON_EXCLUDES(mutex_);

private:
    /// The error of the step that failed, or an empty text.
    std::string take_steps(Request const& request) TESSARON_EXCLUDES(mutex_);
    void set_phase(Request const& request, char const* phase) TESSARON_EXCLUDES(mutex_);
    void end(Request const& request, UpdateStatus status) TESSARON_EXCLUDES(mutex_);

    Steps const steps_;
    mutable Mutex mutex_;
    std::condition_variable idle_;
    std::size_t running_ TESSARON_GUARDED_BY(mutex_) = 0;
    /// An entry is never removed.
    std::map<std::string, UpdateStatus> statuses_ TESSARON_GUARDED_BY(mutex_);
};

void PackageUpdater::Updates::begin(Request const& request) {
    MutexLock const lock(mutex_);
    statuses_.insert_or_assign(request.name, UpdateStatus{"downloading", "", request.version});
    ++running_;
}

void PackageUpdater::Updates::run(Request const& request) {
    try {
        std::string error = take_steps(request);
        if (error.empty()) {
            end(request, {"done", "", request.version});
        } else {
            end_in_error(request, std::move(error));
        }
    } catch (std::exception const& failure) {
        end_in_error(request, failure.what());
    }
}

void PackageUpdater::Updates::end_in_error(Request const& request, std::string error) {
    end(request, {"error", std::move(error), request.version});
}

std::string PackageUpdater::Updates::take_steps(Request const& request) {
    if (std::string error = steps_.download(request); !error.empty()) {
        return error;
    }
    set_phase(request, "installing");
    if (std::string error = steps_.install(request); !error.empty()) {
        return error;
    }
    set_phase(request, "starting");
    return steps_.start(request);
}

void PackageUpdater::Updates::set_phase(Request const& request, char const* phase) {
    MutexLock const lock(mutex_);
    statuses_.insert_or_assign(request.name, UpdateStatus{phase, "", request.version});
}

void PackageUpdater::Updates::end(Request const& request, UpdateStatus status) {
    MutexLock const lock(mutex_);
    statuses_.insert_or_assign(request.name, std::move(status));
    --running_;
    idle_.notify_all();
}

UpdateStatus PackageUpdater::Updates::status(std::string const& name) const {
    MutexLock const lock(mutex_);
    auto const found = statuses_.find(name);
    return found != statuses_.end() ? found->second : UpdateStatus{};
}

void PackageUpdater::Updates::wait_until_idle() {
    MutexLock lock(mutex_);
    idle_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return running_ == 0; });
}

bool PackageUpdater::Updates::wait_until_idle(std::chrono::milliseconds time) {
    MutexLock lock(mutex_);
    return idle_.wait_for(lock.native(), time,
                          [this]() TESSARON_REQUIRES(mutex_) { return running_ == 0; });
}

PackageUpdater::PackageUpdater(Steps steps)
    : updates_(std::make_shared<Updates>(std::move(steps))) {
}

PackageUpdater::~PackageUpdater() {
    updates_->wait_until_idle();
}

void PackageUpdater::run_update_async(Request const& request) {
    updates_->begin(request);
    try {
        tessaron::start_thread("package-update", [updates = updates_, request] {
            updates->run(request);
        }).detach();
    } catch (std::exception const& error) {
        updates_->end_in_error(request, error.what());
    }
}

UpdateStatus PackageUpdater::status(std::string const& name) const {
    return updates_->status(name);
}

bool PackageUpdater::wait_until_idle(std::chrono::milliseconds time) {
    return updates_->wait_until_idle(time);
}

} // namespace mirelclient
