#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <optional>

namespace mirelclient {

/// Tells a peer that does not read from one that is gone.
///
/// TCP_USER_TIMEOUT ends a connection whose data has not been acknowledged for so long: so a busy
/// connection finds out that its network is gone. The system applies it as well to a peer that is
/// there but has closed its window, as a server does that waits for a slow reader of its own. While
/// such a peer answers the system's probes, each `look` puts the limit off.
///
/// Ownership: none of the socket, which must outlive the object.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none; without the system's answer the limit stays as it is.
class WindowWatch {
public:
    using Clock = std::chrono::steady_clock;

    WindowWatch(int socket, std::chrono::milliseconds limit);

    /// To be called several times within the limit, by whoever waits for the socket.
    void look(Clock::time_point now = Clock::now()) TESSARON_EXCLUDES(mutex_);

private:
    void set_limit_locked(std::chrono::milliseconds limit) TESSARON_REQUIRES(mutex_);

    int const socket_;
    std::chrono::milliseconds const limit_;
    tessaron::Mutex mutex_;
    std::chrono::milliseconds current_limit_ TESSARON_GUARDED_BY(mutex_);
    Clock::time_point last_look_ TESSARON_GUARDED_BY(mutex_);
    /// The last look before the window was found closed: an early start of that time.
    std::optional<Clock::time_point> closed_since_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace mirelclient
