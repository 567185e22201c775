#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace tessaron {

/// Turns SIGINT, SIGTERM and SIGHUP into an ordinary call on a thread of its own, so that what
/// follows a stop signal may take locks and wake condition variables.
///
/// The signal handler itself only notes the signal and writes to a descriptor. It stays in place
/// when the object has gone: a second signal must not cut short the end of a process that the first
/// one has begun to stop. At most one object of this class may exist at a time. The thread that
/// builds it lets the three signals through from then on.
///
/// Thread safety: `last_signal` from any thread, and async-signal-safe; the callback runs on the
/// relay thread, one call per signal at most (several at once may become one), with no lock held.
/// Errors: `std::system_error` from the constructor.
class StopSignals {
public:
    explicit StopSignals(std::function<void()> on_signal);
    ~StopSignals();
    StopSignals(StopSignals const&) = delete;
    StopSignals& operator=(StopSignals const&) = delete;

    /// The number of the last signal that came, 0 for none.
    int last_signal() const noexcept;

private:
    void relay();

    std::function<void()> on_signal_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

} // namespace tessaron
