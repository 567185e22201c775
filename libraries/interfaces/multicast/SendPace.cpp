#include "libraries/interfaces/multicast/SendPace.hpp"

#include <algorithm>
#include <thread>

namespace proto::interface {

SendPace::Clock::time_point SendPace::due_after(std::size_t bytes, Clock::time_point now) {
    auto const time = std::chrono::nanoseconds(bytes * 1000 / K_BYTES_PER_MICROSECOND);
    auto const earliest = (now - K_ALLOWANCE).time_since_epoch().count();
    auto due = due_.load();
    Clock::rep next = 0;
    do {
        next = std::max(due, earliest) + Clock::duration(time).count();
    } while (!due_.compare_exchange_weak(due, next));
    return Clock::time_point(Clock::duration(next));
}

void SendPace::wait_after(std::size_t bytes) {
    auto const due = due_after(bytes, Clock::now());
    do {
        std::this_thread::yield(); // Whoever is to read may be waiting for this very processor.
    } while (Clock::now() < due);
}

} // namespace proto::interface
