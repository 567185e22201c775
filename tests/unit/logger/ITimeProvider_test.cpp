#include "logger/ITimeProvider.hpp"

#include "logger/SystemTimeProvider.hpp"
#include "tests/support/FakeTimeProvider.hpp"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using namespace std::chrono_literals;
using test::FakeTimeProvider;

/// The same text, made the long way.
std::string expected_stamp(std::time_t second, int milliseconds) {
    std::tm local{};
    localtime_r(&second, &local);
    char text[32];
    std::size_t const length = std::strftime(text, sizeof text, "%Y-%m-%d_%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03d", milliseconds);
    return text;
}

TEST(ITimeProvider, TimeStampHasDateTimeAndThreeDigitsOfMilliseconds) {
    FakeTimeProvider clock(ITimeProvider::TimePoint(1706704496s + 7ms + 999us));
    std::string const stamp = clock.time_stamp();
    EXPECT_EQ(stamp, expected_stamp(1706704496, 7));
    EXPECT_EQ(stamp.size(), 23U);
    EXPECT_EQ(stamp[10], '_');
}

TEST(ITimeProvider, TimeStampFollowsTheClockFromSecondToSecondAndBack) {
    FakeTimeProvider clock(ITimeProvider::TimePoint(1700000000s));
    EXPECT_EQ(clock.time_stamp(), expected_stamp(1700000000, 0));
    clock.advance(999ms);
    EXPECT_EQ(clock.time_stamp(), expected_stamp(1700000000, 999));
    clock.advance(1ms);
    EXPECT_EQ(clock.time_stamp(), expected_stamp(1700000001, 0));
    clock.set(ITimeProvider::TimePoint(1600000000s + 45ms));
    EXPECT_EQ(clock.time_stamp(), expected_stamp(1600000000, 45));
}

TEST(ITimeProvider, TimeStampBeforeTheEpochCountsMillisecondsUpwards) {
    FakeTimeProvider clock(ITimeProvider::TimePoint(-1ms));
    EXPECT_EQ(clock.time_stamp(), expected_stamp(-1, 999));
}

TEST(SystemTimeProvider, ShowsTheSystemClock) {
    using std::chrono::system_clock;
    SystemTimeProvider const clock;
    auto const before = std::chrono::floor<std::chrono::microseconds>(system_clock::now());
    auto const shown = clock.now();
    auto const after = system_clock::now();
    EXPECT_LE(before, shown);
    EXPECT_LE(shown, after);
}

} // namespace
} // namespace tessaron
