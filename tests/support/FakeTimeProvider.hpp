#pragma once

#include "logger/ITimeProvider.hpp"

#include <atomic>
#include <chrono>

namespace tessaron::test {

/// A clock that stands still until a test moves it.
class FakeTimeProvider final : public ITimeProvider {
public:
    explicit FakeTimeProvider(TimePoint start = TimePoint(std::chrono::seconds(1'700'000'000)))
        : microseconds_(start.time_since_epoch().count()) {}

    TimePoint now() const override {
        ++reads_;
        return TimePoint(std::chrono::microseconds(microseconds_));
    }

    void advance(std::chrono::microseconds by) { microseconds_ += by.count(); }
    void set(TimePoint time) { microseconds_ = time.time_since_epoch().count(); }
    /// How often the clock was looked at.
    int reads() const { return reads_; }

private:
    std::atomic<std::chrono::microseconds::rep> microseconds_;
    mutable std::atomic<int> reads_{0};
};

} // namespace tessaron::test
