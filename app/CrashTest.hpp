#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <pthread.h>

namespace tessaron {

/// Crashes the process on purpose, a moment after it was asked to, so that the answer gets out.
///
/// The thread that waits for the moment is detached and owns what it touches; it does nothing any
/// more once the object has gone.
///
/// Ownership: the thread that is to crash must outlive the object.
/// Thread safety: safe from any thread; `armed` is async-signal-safe.
/// Errors: `std::system_error` if there is no further thread to be had.
class CrashTest {
public:
    static constexpr std::chrono::milliseconds K_DELAY{200};

    CrashTest();
    ~CrashTest();
    CrashTest(CrashTest const&) = delete;
    CrashTest& operator=(CrashTest const&) = delete;

    /// The thread that will crash; at first the one that made the object.
    void set_target(pthread_t thread) noexcept;
    /// SIGABRT to the target, `K_DELAY` from now.
    void arm();
    bool armed() const noexcept { return armed_; }

private:
    struct Shared;

    std::shared_ptr<Shared> const shared_;
    std::atomic<bool> armed_{false};
};

} // namespace tessaron
