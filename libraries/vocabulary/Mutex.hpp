#pragma once

#include "libraries/vocabulary/thread_annotations.hpp"

#include <condition_variable>
#include <mutex>

namespace tessaron {

/// `std::mutex` with the annotations that clang's thread-safety analysis needs.
///
/// Thread safety: safe from any thread.
class TESSARON_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    void lock() TESSARON_ACQUIRE() { mutex_.lock(); }
    void unlock() TESSARON_RELEASE() { mutex_.unlock(); }
    bool try_lock() TESSARON_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    std::mutex& native() { return mutex_; }

private:
    std::mutex mutex_;
};

/// Holds a `Mutex` for its own lifetime, and can wait on a condition variable:
///
///     MutexLock lock(mutex_);
///     changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return !tasks_.empty();
///     });
///
/// Thread safety: one thread at a time, the caller's duty.
class TESSARON_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) TESSARON_ACQUIRE(mutex) : lock_(mutex.native()) {}
    ~MutexLock() TESSARON_RELEASE() {}
    MutexLock(MutexLock const&) = delete;
    MutexLock& operator=(MutexLock const&) = delete;

    /// Gives the mutex back early, for a call that must not run under it.
    void unlock() TESSARON_RELEASE() { lock_.unlock(); }
    void lock() TESSARON_ACQUIRE() { lock_.lock(); }

    std::unique_lock<std::mutex>& native() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

} // namespace tessaron
