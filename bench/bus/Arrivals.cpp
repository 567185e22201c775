#include "bench/bus/Arrivals.hpp"

#include "bench/support/statistics.hpp"

#include <algorithm>
#include <chrono>
#include <thread>

namespace bench::bus {

namespace {

/// Longer than any message that is still to come is on its way.
constexpr std::chrono::milliseconds K_SILENCE{150};

} // namespace

void Arrivals::begin(std::uint32_t round, std::size_t expected) {
    std::lock_guard const lock(mutex_);
    round_ = round;
    expected_ = expected;
    bytes_ = broken_ = 0;
    last_ = 0;
    latencies_.clear();
    latencies_.reserve(expected);
}

void Arrivals::take(std::uint8_t const* message, std::size_t size) {
    std::int64_t const arrived_at = now();
    Head head;
    std::uint32_t last_number = 0;
    if (size < sizeof head) {
        return;
    }
    std::memcpy(&head, message, sizeof head);
    std::memcpy(&last_number, message + size - sizeof last_number, sizeof last_number);
    std::lock_guard const lock(mutex_);
    if (head.round != round_) {
        return;
    }
    broken_ += size > sizeof head && last_number != head.number ? 1 : 0;
    bytes_ += size;
    last_ = arrived_at;
    latencies_.push_back(static_cast<double>(arrived_at - head.sent_at) / 1e3);
}

std::string Arrivals::report() {
    std::size_t before = 0;
    while (true) {
        {
            std::lock_guard const lock(mutex_);
            bool const is_silent = before > 0 && latencies_.size() == before;
            if (latencies_.size() >= expected_ || is_silent) {
                return figures_locked();
            }
            before = std::max<std::size_t>(latencies_.size(), 1);
        }
        std::this_thread::sleep_for(K_SILENCE);
    }
}

std::string Arrivals::figures_locked() {
    return "{\"count\": " + std::to_string(latencies_.size()) +
           ", \"bytes\": " + std::to_string(bytes_) + ", \"broken\": " + std::to_string(broken_) +
           ", \"last\": " + std::to_string(last_) +
           ", \"latency\": " + std::to_string(latencies_.empty() ? 0 : median(latencies_)) + "}";
}

} // namespace bench::bus
