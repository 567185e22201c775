#pragma once

#include "libraries/interfaces/multicast/DatagramBatch.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace proto::interface {

/// The bursts in progress, one a thread, and the memory of those that are over.
///
/// Thread safety: safe from any thread; one internal lock. A batch belongs to its thread alone.
/// Errors: none.
class SendBursts {
public:
    /// Begins this thread's burst, or one more within it.
    void begin();
    /// This thread's batch, null outside of a burst; valid until the burst's end.
    DatagramBatch* current();
    /// Ends this thread's burst: its batch, to be sent. Null if it lies within another, or if there
    /// is none.
    std::unique_ptr<DatagramBatch> end();
    /// Keeps the memory for a later burst.
    void reuse(std::unique_ptr<DatagramBatch> sent);

private:
    struct Burst {
        std::thread::id thread;
        int depth = 0;
        std::unique_ptr<DatagramBatch> batch;
    };

    std::vector<Burst>::iterator find_locked() TESSARON_REQUIRES(mutex_);

    std::atomic<int> active_count_{0}; ///< spares those who send without a burst the lock
    tessaron::Mutex mutex_;
    std::vector<Burst> active_ TESSARON_GUARDED_BY(mutex_);
    std::vector<std::unique_ptr<DatagramBatch>> idle_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace proto::interface
