#include "MirelClientApp/web/HandlerGate.hpp"

namespace mirelclient {

using tessaron::MutexLock;

HandlerGate::Pass::~Pass() {
    if (entered_) {
        gate_.leave();
    }
}

void HandlerGate::open() {
    MutexLock const lock(mutex_);
    open_ = true;
}

void HandlerGate::close() {
    MutexLock const lock(mutex_);
    open_ = false;
}

void HandlerGate::wait_until_empty() {
    MutexLock lock(mutex_);
    left_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return running_ == 0; });
}

bool HandlerGate::wait_until_empty_for(std::chrono::milliseconds time) {
    MutexLock lock(mutex_);
    return left_.wait_for(lock.native(), time,
                          [this]() TESSARON_REQUIRES(mutex_) { return running_ == 0; });
}

bool HandlerGate::enter() {
    MutexLock const lock(mutex_);
    if (open_) {
        ++running_;
    }
    return open_;
}

void HandlerGate::leave() {
    MutexLock const lock(mutex_);
    if (--running_ == 0) {
        left_.notify_all();
    }
}

} // namespace mirelclient
