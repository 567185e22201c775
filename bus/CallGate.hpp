#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <thread>
#include <vector>

namespace tessaron::bus {

/// Lets an object that other threads call go: once `close` has returned, none of them is within,
/// and none will be.
///
///     CallGate::Pass const pass(gate_);
///     if (!pass) {
///         return;
///     }
///
/// A thread that is itself within may close the gate; it is not waited for.
///
/// Thread safety: safe from any thread; one internal lock, not held between the passes' ends.
/// Errors: none.
class CallGate {
public:
    /// One call under way, on the thread that made it.
    class Pass {
    public:
        explicit Pass(CallGate& gate) : gate_(gate), admitted_(gate.enter()) {}
        ~Pass() {
            if (admitted_) {
                gate_.leave();
            }
        }
        Pass(Pass const&) = delete;
        Pass& operator=(Pass const&) = delete;

        explicit operator bool() const { return admitted_; }

    private:
        CallGate& gate_;
        bool const admitted_;
    };

    /// Lets nobody in any more, and waits for the calls of all other threads.
    void close() TESSARON_EXCLUDES(mutex_);

private:
    bool enter() TESSARON_EXCLUDES(mutex_);
    void leave() TESSARON_EXCLUDES(mutex_);
    bool others_within_locked() const TESSARON_REQUIRES(mutex_);

    Mutex mutex_;
    std::condition_variable left_;
    /// A thread stands here once for each of its calls, since they may be nested.
    std::vector<std::thread::id> within_ TESSARON_GUARDED_BY(mutex_);
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

} // namespace tessaron::bus
