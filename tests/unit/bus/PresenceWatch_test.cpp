#include "bus/PresenceWatch.hpp"

#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using State = PresenceWatch::State;

constexpr PresenceWatch::Time K_START{1h};
constexpr std::chrono::milliseconds K_PATIENCE = 6s;

TEST(PresenceWatch, WhoWasHeardLatelyIsThere) {
    PresenceWatch watch{K_PATIENCE};
    EXPECT_EQ(watch.look(1, K_START, K_START + K_PATIENCE - 1ns), State::PRESENT);
}

TEST(PresenceWatch, WhoIsSilentIsAskedTwiceAndThenGone) {
    PresenceWatch watch{K_PATIENCE};
    EXPECT_EQ(watch.look(1, K_START, K_START + K_PATIENCE), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(1, K_START, K_START + 2 * K_PATIENCE - 1ns), State::PRESENT);
    EXPECT_EQ(watch.look(1, K_START, K_START + 2 * K_PATIENCE), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(1, K_START, K_START + 3 * K_PATIENCE - 1ns), State::PRESENT);
    EXPECT_EQ(watch.look(1, K_START, K_START + 3 * K_PATIENCE), State::GONE);
    EXPECT_EQ(watch.look(1, K_START, K_START + 4 * K_PATIENCE), State::GONE);
}

TEST(PresenceWatch, WhoIsFirstLookedAtAfterALongSilenceIsAskedBeforeHeIsGone) {
    PresenceWatch watch{K_PATIENCE};
    EXPECT_EQ(watch.look(1, K_START, K_START + 1h), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(1, K_START, K_START + 1h), State::PRESENT);
}

TEST(PresenceWatch, AnAnswerBeginsTheTimeAnew) {
    PresenceWatch watch{K_PATIENCE};
    auto const asked = K_START + K_PATIENCE;
    EXPECT_EQ(watch.look(1, K_START, asked), State::TO_BE_ASKED);
    watch.heard(1, asked + 1s);
    EXPECT_EQ(watch.look(1, K_START, asked + K_PATIENCE), State::PRESENT);
    EXPECT_EQ(watch.look(1, K_START, asked + 1s + K_PATIENCE), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(1, K_START, asked + 1s + 2 * K_PATIENCE), State::TO_BE_ASKED);
}

TEST(PresenceWatch, WhoIsGoneIsBackWhenHeIsHeard) {
    PresenceWatch watch{K_PATIENCE};
    auto now = K_START;
    while (watch.look(1, K_START, now) != State::GONE) {
        ASSERT_LT(now, K_START + 1h);
        now += K_PATIENCE;
    }
    EXPECT_EQ(watch.look(1, now, now + 1s), State::PRESENT) << "by the caller's knowledge";
    watch.heard(1, now + K_PATIENCE);
    EXPECT_EQ(watch.look(1, now, now + K_PATIENCE + 1s), State::PRESENT);
}

TEST(PresenceWatch, EverybodyIsWatchedAlone) {
    PresenceWatch watch{K_PATIENCE};
    EXPECT_EQ(watch.look(1, K_START, K_START + K_PATIENCE), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(2, K_START, K_START + K_PATIENCE), State::TO_BE_ASKED);
    watch.heard(2, K_START + K_PATIENCE + 1s);
    watch.heard(3, K_START);
    EXPECT_EQ(watch.look(1, K_START, K_START + 2 * K_PATIENCE), State::TO_BE_ASKED);
    EXPECT_EQ(watch.look(2, K_START, K_START + 2 * K_PATIENCE), State::PRESENT);
}

} // namespace
} // namespace tessaron::bus
