#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <thread>

namespace tessaron {

/// Calls a function again and again on a thread of its own, for as long as the object lives.
///
/// The shell installs its crash handlers so: a library that the application loads may put its own
/// in their place, and would have the last word on every crash from then on.
///
/// Thread safety: the function is called on the thread "crash-handlers", with no lock held, and
/// must not throw.
/// Errors: `std::system_error` from the constructor.
class ReassertGuard {
public:
    static constexpr std::chrono::milliseconds K_PERIOD{100};

    using Function = void (*)() noexcept;

    explicit ReassertGuard(Function reassert);
    ~ReassertGuard();
    ReassertGuard(ReassertGuard const&) = delete;
    ReassertGuard& operator=(ReassertGuard const&) = delete;

private:
    void reassert_until_ended() TESSARON_EXCLUDES(mutex_);

    Function const reassert_;
    Mutex mutex_;
    std::condition_variable ended_changed_;
    bool ended_ TESSARON_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

} // namespace tessaron
