#include "app/utilities/line_text.hpp"

#include <cstdint>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

TEST(ParseNumber, TakesAWholeNumber) {
    EXPECT_EQ(parse_number<long>("80"), 80);
    EXPECT_EQ(parse_number<long>("-5"), -5);
    EXPECT_EQ(parse_number<std::uint64_t>("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(parse_number<std::uint64_t>("ff", 16), 255);
}

TEST(ParseNumber, TakesNothingButAWholeNumber) {
    for (char const* const text :
         {"", " ", "80a", "a80", " 80", "80 ", "+80", "0x10", "1.5", "-"}) {
        EXPECT_FALSE(parse_number<long>(text)) << text;
    }
}

TEST(ParseNumber, TakesNothingThatTheTypeCannotHold) {
    EXPECT_FALSE(parse_number<int>("2147483648"));
    EXPECT_FALSE(parse_number<std::uint64_t>("18446744073709551616"));
    EXPECT_FALSE(parse_number<std::uint64_t>("-1"));
}

TEST(OneLine, EachLineBreakBecomesABlank) {
    EXPECT_EQ(one_line("a\nb\r\nc\r"), "a b  c ");
    EXPECT_EQ(one_line("tab\tand blank stay"), "tab\tand blank stay");
}

TEST(Join, EmptyPartsAreKept) {
    EXPECT_EQ(join({"", "a", "", "b"}, '|'), "|a||b");
    EXPECT_EQ(join({"a"}, '|'), "a");
    EXPECT_EQ(join({}, '|'), "");
}

TEST(WithoutCarriageReturns, OnlyTheEndOfTheLineIsCut) {
    EXPECT_EQ(without_carriage_returns("a\rb\r\r"), "a\rb");
    EXPECT_EQ(without_carriage_returns("\r"), "");
    EXPECT_EQ(without_carriage_returns(""), "");
}

} // namespace
} // namespace tessaron
