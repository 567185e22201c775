#pragma once

#include "libraries/interfaces/multicast/MulticastUdpInterface.hpp"
#include "tests/unit/libraries/interfaces/Recorder.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace proto::interface::test {

inline constexpr char const* K_GROUP = "239.255.77.1";
inline constexpr std::uint16_t K_PORT = 47001;

/// Time for the watchdog: it stands still until a test moves it, and counts how often it is asked,
/// which the reader does once each time that it has received nothing.
class WatchdogClock {
public:
    MulticastTiming timing() {
        MulticastTiming timing;
        timing.receive_timeout = std::chrono::milliseconds(5);
        timing.now = [this] {
            ++asked_;
            return std::chrono::steady_clock::time_point(std::chrono::milliseconds(now_ms_));
        };
        return timing;
    }
    void advance(std::chrono::milliseconds time) { now_ms_ += time.count(); }
    /// Two whole looks at the clock: the second of them began after this call.
    void wait_for_looks() {
        long const before = asked_;
        tessaron::test::wait_until([&] { return asked_ >= before + 3; }, "the watchdog has looked");
    }

private:
    std::atomic<std::int64_t> now_ms_{1'000'000};
    std::atomic<long> asked_{0};
};

inline MulticastTiming never_timing_out() {
    MulticastTiming timing;
    timing.receive_timeout = std::chrono::hours(1);
    timing.send_timeout = std::chrono::hours(1);
    return timing;
}

inline bool wait_for_rejoins(MulticastUdpInterface& transport, std::uint32_t count) {
    return tessaron::test::wait_until([&] { return transport.rejoin_count() >= count; },
                                      std::to_string(count) + " rejoins");
}

} // namespace proto::interface::test
