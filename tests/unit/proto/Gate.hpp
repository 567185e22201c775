#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>

namespace proto::test {

/// Holds up whoever passes, until it is opened for good.
class Gate {
public:
    void pass() {
        tessaron::MutexLock lock(mutex_);
        has_visitor_ = true;
        changed_.notify_all();
        changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return is_open_; });
    }

    void wait_for_visitor() {
        tessaron::MutexLock lock(mutex_);
        changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return has_visitor_; });
    }

    void open() {
        tessaron::MutexLock const lock(mutex_);
        is_open_ = true;
        changed_.notify_all();
    }

private:
    tessaron::Mutex mutex_;
    std::condition_variable changed_;
    bool has_visitor_ TESSARON_GUARDED_BY(mutex_) = false;
    bool is_open_ TESSARON_GUARDED_BY(mutex_) = false;
};

} // namespace proto::test
