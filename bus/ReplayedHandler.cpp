#include "bus/ReplayedHandler.hpp"

namespace tessaron::bus {

void ReplayedHandler::handle(std::string const& topic, Bytes const& payload, std::uint32_t source) {
    if (!live_.load(std::memory_order_acquire)) {
        MutexLock lock(mutex_);
        if (!live_.load(std::memory_order_relaxed)) {
            waiting_.push_back({topic, payload, source});
            if (waiting_.size() > K_MAX_WAITING) {
                waiting_.pop_front();
            }
            return;
        }
    }
    handler_(topic, payload, source);
}

void ReplayedHandler::replay(Retained const& retained) {
    for (auto const& [topic, payload] : retained) {
        handler_(topic, payload, 0);
    }
    MutexLock lock(mutex_);
    while (!waiting_.empty()) {
        Event const event = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        handler_(event.topic, event.payload, event.source);
        lock.lock();
    }
    live_.store(true, std::memory_order_release);
}

} // namespace tessaron::bus
