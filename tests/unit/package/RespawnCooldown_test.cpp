#include "package/RespawnCooldown.hpp"

#include <gtest/gtest.h>

namespace tessaron {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RespawnCooldown, TheFirstAttemptIsAllowedAtAnyTime) {
    RespawnCooldown cooldown;
    EXPECT_TRUE(cooldown.try_attempt("a", {}));
    EXPECT_TRUE(cooldown.try_attempt("b", RespawnCooldown::Clock::time_point::max()));
}

TEST(RespawnCooldown, ThreeSecondsAfterTheLastAttemptTheNextIsAllowed) {
    RespawnCooldown cooldown;
    auto const now = RespawnCooldown::Clock::now();
    EXPECT_TRUE(cooldown.try_attempt("a", now));
    EXPECT_FALSE(cooldown.try_attempt("a", now));
    EXPECT_FALSE(cooldown.try_attempt("a", now + milliseconds(2999)));
    EXPECT_TRUE(cooldown.try_attempt("a", now + seconds(3)));
}

TEST(RespawnCooldown, ARefusedAttemptDoesNotCount) {
    RespawnCooldown cooldown;
    auto const now = RespawnCooldown::Clock::now();
    EXPECT_TRUE(cooldown.try_attempt("a", now));
    EXPECT_FALSE(cooldown.try_attempt("a", now + seconds(2)));
    EXPECT_TRUE(cooldown.try_attempt("a", now + seconds(4)));
    EXPECT_FALSE(cooldown.try_attempt("a", now + seconds(6)));
    EXPECT_TRUE(cooldown.try_attempt("a", now + seconds(7)));
}

TEST(RespawnCooldown, PackagesDoNotWaitForEachOther) {
    RespawnCooldown cooldown;
    auto const now = RespawnCooldown::Clock::now();
    EXPECT_TRUE(cooldown.try_attempt("a", now));
    EXPECT_TRUE(cooldown.try_attempt("b", now));
    EXPECT_FALSE(cooldown.try_attempt("a", now + seconds(1)));
    EXPECT_TRUE(cooldown.try_attempt("", now));
}

} // namespace
} // namespace tessaron
