#include "MirelClientApp/updates/semver.hpp"

#include <gtest/gtest.h>
#include <limits>
#include <tuple>
#include <vector>

namespace mirelclient {
namespace {

constexpr std::int32_t K_MIN = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t K_MAX = std::numeric_limits<std::int32_t>::max();

using Fields = std::tuple<std::int32_t, std::int32_t, std::int32_t, bool, std::int32_t>;

Fields fields_of(std::string const& text) {
    SemverKey const key = parse_semver_key(text);
    return {key.major, key.minor, key.patch, key.is_dev, key.dev_number};
}

TEST(Semver, ThreeNumbersAreRead) {
    EXPECT_EQ(fields_of("1.2.3"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(fields_of("0.0.0"), Fields(0, 0, 0, false, 0));
    EXPECT_EQ(fields_of("010.007.00"), Fields(10, 7, 0, false, 0));
}

TEST(Semver, ATextWithoutAllThreeKeepsThoseThatItHas) {
    EXPECT_EQ(fields_of(""), Fields(0, 0, 0, false, 0));
    EXPECT_EQ(fields_of("abc"), Fields(0, 0, 0, false, 0));
    EXPECT_EQ(fields_of("v1.2.3"), Fields(0, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1."), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.2"), Fields(1, 2, 0, false, 0));
    EXPECT_EQ(fields_of("1.2."), Fields(1, 2, 0, false, 0));
    EXPECT_EQ(fields_of("1.x.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1,2,3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of(" \t\n"), Fields(0, 0, 0, false, 0));
}

TEST(Semver, ADevPartNeedsAllThreeNumbers) {
    EXPECT_EQ(fields_of("1.2-dev.7"), Fields(1, 2, 0, false, 0));
    EXPECT_EQ(fields_of("dev.7"), Fields(0, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.2.dev.7"), Fields(1, 2, 0, false, 0));
}

TEST(Semver, BlanksAndASignMayStandBeforeEachNumber) {
    EXPECT_EQ(fields_of(" \t\n\v\f\r1. 2.\t3"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(fields_of("+1.-2. +3"), Fields(1, -2, 3, false, 0));
    EXPECT_EQ(fields_of("1.2.3-dev. +4"), Fields(1, 2, 3, true, 4));
    EXPECT_EQ(fields_of("1.2.3-dev.-4"), Fields(1, 2, 3, true, -4));
}

TEST(Semver, BlanksBehindANumberAndASignAloneEndTheText) {
    EXPECT_EQ(fields_of("1 .2.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.- 2.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.+-2.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.-+2.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.--2.3"), Fields(1, 0, 0, false, 0));
    EXPECT_EQ(fields_of("1.2.+"), Fields(1, 2, 0, false, 0));
    EXPECT_EQ(fields_of("1.2.-"), Fields(1, 2, 0, false, 0));
}

TEST(Semver, ATailWithoutADevPartIsIgnored) {
    EXPECT_EQ(fields_of("1.2.3-rc1"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(fields_of("1.2.3.4"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(fields_of("1.2.3-dev"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(fields_of("1.2.3-DEV.4"), Fields(1, 2, 3, false, 0));
    EXPECT_EQ(compare_semver("1.2.3-rc1", "1.2.3"), 0);
}

TEST(Semver, TheFirstDevPartAnywhereInTheTailCounts) {
    EXPECT_EQ(fields_of("1.2.3-dev.9"), Fields(1, 2, 3, true, 9));
    EXPECT_EQ(fields_of("1.2.3dev.9"), Fields(1, 2, 3, true, 9));
    EXPECT_EQ(fields_of("1.2.3-rc1+predev.9x-dev.8"), Fields(1, 2, 3, true, 9));
    EXPECT_EQ(fields_of(std::string("1.2.3\0dev.9", 11)), Fields(1, 2, 3, true, 9));
}

TEST(Semver, ADevPartWithoutANumberHasNumberZero) {
    EXPECT_EQ(fields_of("1.2.3-dev."), Fields(1, 2, 3, true, 0));
    EXPECT_EQ(fields_of("1.2.3-dev.x"), Fields(1, 2, 3, true, 0));
    EXPECT_EQ(fields_of("1.2.3-dev.x-dev.5"), Fields(1, 2, 3, true, 0));
    EXPECT_EQ(fields_of("1.2.3-dev.0x10"), Fields(1, 2, 3, true, 0));
}

TEST(Semver, NumbersOutOfRangeHoldAtTheNearestOne) {
    EXPECT_EQ(fields_of("2147483647.-2147483648.0"), Fields(K_MAX, K_MIN, 0, false, 0));
    EXPECT_EQ(fields_of("2147483648.-2147483649.1"), Fields(K_MAX, K_MIN, 1, false, 0));
    std::string const digits(1000, '9');
    EXPECT_EQ(fields_of(digits + ".-" + digits + ".+" + digits + "-dev." + digits),
              Fields(K_MAX, K_MIN, K_MAX, true, K_MAX));
}

TEST(Semver, ANulEndsTheNumbers) {
    EXPECT_EQ(fields_of(std::string("1.2\0.3", 6)), Fields(1, 2, 0, false, 0));
}

// Each is older than all that follow it.
std::vector<std::string> const K_ASCENDING{
    "-1.0.0",      "abc",          "0.0.1-dev.1", "0.0.1",        "0.9.9",  "1.2.3-dev.-1",
    "1.2.3-dev.9", "1.2.3-dev.10", "1.2.3",       "1.2.4-dev.1",  "1.2.4",  "1.2.10",
    "1.10",        "1.10.1",       "2",           "10.0.0-dev.1", "10.0.0", "99999999999"};

TEST(Semver, VersionsCompareByTheirNumbersAndADevBuildComesBeforeItsRelease) {
    for (std::size_t i = 0; i < K_ASCENDING.size(); ++i) {
        for (std::size_t j = 0; j < K_ASCENDING.size(); ++j) {
            int const order = i < j ? -1 : (i > j ? 1 : 0);
            EXPECT_EQ(compare_semver(K_ASCENDING[i], K_ASCENDING[j]), order)
                << K_ASCENDING[i] << " and " << K_ASCENDING[j];
            EXPECT_EQ(is_semver_newer(K_ASCENDING[i], K_ASCENDING[j]), order > 0)
                << K_ASCENDING[i] << " and " << K_ASCENDING[j];
        }
    }
}

TEST(Semver, MissingNumbersCompareAsZero) {
    EXPECT_EQ(compare_semver("1.2", "1.2.0"), 0);
    EXPECT_EQ(compare_semver("abc", "0.0.0"), 0);
    EXPECT_EQ(compare_semver("", "0.0.0"), 0);
}

TEST(Semver, EqualVersionsAreNotNewer) {
    EXPECT_FALSE(is_semver_newer("1.2.3", "1.2.3"));
    EXPECT_FALSE(is_semver_newer("1.2.3-dev.4", "1.2.3-dev.4"));
}

TEST(Semver, TheDevNumberOfAReleaseDoesNotCount) {
    EXPECT_EQ(compare_semver(SemverKey{1, 2, 3, false, 5}, SemverKey{1, 2, 3, false, 6}), 0);
}

} // namespace
} // namespace mirelclient
