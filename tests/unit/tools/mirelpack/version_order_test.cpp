#include "tools/mirelpack/version_order.hpp"

#include <gtest/gtest.h>
#include <iterator>
#include <utility>

namespace mirelpack {
namespace {

TEST(VersionOrder, EachIsNewerThanTheOneBefore) {
    char const* const ascending[] = {
        "0.9",        "1.0.0-dev.9", "1.0.0-dev.10", "1.0.0-rc.1", "1.0.0-rc2", "1.0.0-rc10",
        "1.0.0",      "1.0.1-dev.1", "1.0.1",        "1.9",        "1.10",      "1.10.0.1",
        "2.0.0~beta", "2.0.0",       "10",           "2024.01.05", "2024.1.6",  "2024.1.6.a",
    };
    for (std::size_t i = 0; i < std::size(ascending); ++i) {
        for (std::size_t k = 0; k < std::size(ascending); ++k) {
            int const order = compare_versions(ascending[i], ascending[k]);
            EXPECT_EQ(order < 0, i < k) << ascending[i] << " and " << ascending[k];
            EXPECT_EQ(order > 0, i > k) << ascending[i] << " and " << ascending[k];
        }
    }
}

TEST(VersionOrder, EqualVersionsOfOtherSpellingStillHaveAnOrder) {
    for (auto const& [a, b] : {std::pair("1.2", "1.2.0"), std::pair("1.0", "1.00"),
                               std::pair("1.0+a", "1.0+b"), std::pair("1-x", "1~x")}) {
        EXPECT_NE(compare_versions(a, b), 0);
        EXPECT_EQ(compare_versions(a, b) < 0, compare_versions(b, a) > 0);
    }
    EXPECT_EQ(compare_versions("1.2", "1.2"), 0);
}

TEST(VersionOrder, NumbersMayHaveAnyNumberOfDigits) {
    EXPECT_LT(compare_versions("99999999999999999999998", "99999999999999999999999"), 0);
    EXPECT_LT(compare_versions("9", "99999999999999999999999"), 0);
}

} // namespace
} // namespace mirelpack
