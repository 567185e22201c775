#pragma once

#include "app/utilities/file_io.hpp"

#include <functional>
#include <thread>

namespace tessaron {

/// Turns SIGINT, SIGTERM and SIGHUP into an ordinary call on a thread of its own, so that what
/// follows a stop signal may take locks and wake condition variables.
///
/// The signal handler itself only notes the signal and writes to a descriptor. At most one object
/// of this class may exist at a time; the process's own dispositions come back with its end.
///
/// Thread safety: `last_signal` from any thread; the callback runs on the relay thread, one call
/// per signal at most (several at once may become one), with no lock held.
/// Errors: `std::system_error` from the constructor.
class StopSignals {
public:
    explicit StopSignals(std::function<void()> on_signal);
    ~StopSignals();
    StopSignals(StopSignals const&) = delete;
    StopSignals& operator=(StopSignals const&) = delete;

    /// The number of the last signal that came, 0 for none.
    int last_signal() const;

private:
    void relay();

    std::function<void()> on_signal_;
    UniqueFd wake_;
    std::thread thread_;
};

} // namespace tessaron
