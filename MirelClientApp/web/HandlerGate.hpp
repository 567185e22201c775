#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>

namespace mirelclient {

/// Counts the handlers that are running and, once closed, lets no further one begin; so a server
/// can be torn down, with all that its handlers refer to, without waiting for idle connections.
///
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none.
class HandlerGate {
public:
    explicit HandlerGate(bool open = false) : open_(open) {}

    void open() TESSARON_EXCLUDES(mutex_);
    void close() TESSARON_EXCLUDES(mutex_);
    void wait_until_empty() TESSARON_EXCLUDES(mutex_);
    /// False if somebody is inside still when `time` has passed.
    [[nodiscard]] bool wait_until_empty_for(std::chrono::milliseconds time)
        TESSARON_EXCLUDES(mutex_);

    /// One passage through the gate, for as long as it lives. `entered()` is false if the gate was
    /// closed.
    class Pass {
    public:
        explicit Pass(HandlerGate& gate) : gate_(gate), entered_(gate.enter()) {}
        ~Pass();
        Pass(Pass const&) = delete;
        Pass& operator=(Pass const&) = delete;

        bool entered() const { return entered_; }

    private:
        HandlerGate& gate_;
        bool entered_;
    };

private:
    bool enter() TESSARON_EXCLUDES(mutex_);
    void leave() TESSARON_EXCLUDES(mutex_);

    tessaron::Mutex mutex_;
    std::condition_variable left_;
    bool open_ TESSARON_GUARDED_BY(mutex_);
    std::size_t running_ TESSARON_GUARDED_BY(mutex_) = 0;
};

} // namespace mirelclient
