#include "bus/CallGate.hpp"

#include <algorithm>

namespace tessaron::bus {

void CallGate::close() {
    MutexLock lock(mutex_);
    closed_ = true;
    left_.wait(lock.native(),
               [this]() TESSARON_REQUIRES(mutex_) { return !others_within_locked(); });
}

bool CallGate::enter() {
    MutexLock lock(mutex_);
    if (closed_) {
        return false;
    }
    within_.push_back(std::this_thread::get_id());
    return true;
}

void CallGate::leave() {
    MutexLock lock(mutex_);
    within_.erase(std::find(within_.begin(), within_.end(), std::this_thread::get_id()));
    // Under the lock: the one who waits may take the gate down as soon as it is free.
    if (closed_) {
        left_.notify_all();
    }
}

bool CallGate::others_within_locked() const {
    auto const self = std::this_thread::get_id();
    return std::any_of(within_.begin(), within_.end(),
                       [self](std::thread::id id) { return id != self; });
}

} // namespace tessaron::bus
