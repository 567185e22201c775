#include "logger/LogTraceRingBuffer.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

TEST(LogTraceRingBuffer, RecordsTimeLevelAndText) {
    LogTraceRingBuffer<4> ring;
    ring.record(123456789, LogLevel::WARNING, "hello");
    auto const copy = ring.snapshot();
    EXPECT_EQ(copy.write_index, 1U);
    EXPECT_EQ(copy.entries[0].timestamp, 123456789U);
    EXPECT_EQ(copy.entries[0].level, LogLevel::WARNING);
    EXPECT_STREQ(copy.entries[0].text, "hello");
    EXPECT_STREQ(copy.entries[1].text, "");
}

TEST(LogTraceRingBuffer, TextOf199BytesIsWholeAndOf200IsCut) {
    LogTraceRingBuffer<4> ring;
    ring.record(1, LogLevel::INFO, std::string(199, 'a'));
    ring.record(2, LogLevel::INFO, std::string(200, 'b'));
    auto const copy = ring.snapshot();
    EXPECT_EQ(copy.entries[0].text, std::string(199, 'a'));
    EXPECT_EQ(copy.entries[1].text, std::string(196, 'b') + "...");
}

TEST(LogTraceRingBuffer, OldestEntryIsReplacedAndTheIndexGoesOn) {
    LogTraceRingBuffer<4> ring;
    for (std::uint64_t i = 0; i < 6; ++i) {
        ring.record(i, LogLevel::INFO, "line " + std::to_string(i));
    }
    EXPECT_EQ(ring.raw_write_index(), 6U);
    EXPECT_STREQ(ring.raw_entries()[0].text, "line 4");
    EXPECT_STREQ(ring.raw_entries()[1].text, "line 5");
    EXPECT_STREQ(ring.raw_entries()[2].text, "line 2");
}

TEST(LogTraceRingBuffer, ShorterTextLeavesNothingOfTheFormerBehind) {
    LogTraceRingBuffer<1> ring;
    ring.record(1, LogLevel::INFO, std::string(300, 'x'));
    ring.record(2, LogLevel::INFO, "short");
    EXPECT_STREQ(ring.raw_entries()[0].text, "short");
}

TEST(LogTraceRingBuffer, TextIsTerminatedWhateverThreadsMeetInASlot) {
    LogTraceRingBuffer<2> ring;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&ring, thread] {
            std::string const text(static_cast<std::size_t>(50 + 100 * thread), 'x');
            for (std::uint64_t i = 0; i < 5'000; ++i) {
                ring.record(i, LogLevel::INFO, text);
            }
        });
    }
    for (int i = 0; i < 2'000; ++i) {
        auto const copy = ring.snapshot();
        for (LogTraceEntry const& entry : copy.entries) {
            ASSERT_LT(strnlen(entry.text, sizeof entry.text), sizeof entry.text);
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ring.raw_write_index(), 15'000U);
}

} // namespace
} // namespace tessaron
