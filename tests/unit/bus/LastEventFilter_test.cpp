#include "bus/LastEventFilter.hpp"

#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

TEST(LastEventFilter, TellsTheRepetitionOfTheLastEvent) {
    LastEventFilter filter;
    EXPECT_FALSE(filter.is_repeated(1, 2, 3));
    EXPECT_TRUE(filter.is_repeated(1, 2, 3));
    EXPECT_TRUE(filter.is_repeated(1, 2, 3));
}

TEST(LastEventFilter, AnEarlierEventIsNotRemembered) {
    LastEventFilter filter;
    EXPECT_FALSE(filter.is_repeated(1, 2, 3));
    EXPECT_FALSE(filter.is_repeated(1, 2, 4));
    EXPECT_FALSE(filter.is_repeated(1, 2, 3));
}

TEST(LastEventFilter, AnEventWithoutAnIdIsNeverARepetition) {
    LastEventFilter filter;
    EXPECT_FALSE(filter.is_repeated(1, 2, 0));
    EXPECT_FALSE(filter.is_repeated(1, 2, 0));
    EXPECT_FALSE(filter.is_repeated(1, 2, 3));
    EXPECT_FALSE(filter.is_repeated(1, 2, 0));
    EXPECT_TRUE(filter.is_repeated(1, 2, 3));
}

TEST(LastEventFilter, SendersAndTopicsAreKeptApart) {
    LastEventFilter filter;
    EXPECT_FALSE(filter.is_repeated(1, 2, 3));
    EXPECT_FALSE(filter.is_repeated(2, 1, 3));
    EXPECT_FALSE(filter.is_repeated(1, 1, 3));
    EXPECT_FALSE(filter.is_repeated(0x8001, 2, 3));
    EXPECT_TRUE(filter.is_repeated(1, 2, 3));
}

TEST(LastEventFilter, AFloodOfSendersDoesNotFillTheMemory) {
    LastEventFilter filter;
    for (std::uint32_t i = 0; i < 300'000; ++i) {
        filter.is_repeated(static_cast<std::uint16_t>(i), static_cast<std::uint16_t>(i >> 16), 7);
        ASSERT_LE(filter.size(), 2 * LastEventFilter::K_GENERATION_SIZE);
    }
}

TEST(LastEventFilter, ASenderThatIsHeardNowAndThenIsNotForgottenInAFlood) {
    LastEventFilter filter;
    filter.is_repeated(1, 0xffff, 7);
    for (std::uint32_t i = 0; i < 300'000; ++i) {
        filter.is_repeated(static_cast<std::uint16_t>(i), static_cast<std::uint16_t>(i >> 16), 7);
        if (i % 30'000 == 0) {
            ASSERT_TRUE(filter.is_repeated(1, 0xffff, 7)) << i;
        }
    }
}

} // namespace
} // namespace tessaron::bus
