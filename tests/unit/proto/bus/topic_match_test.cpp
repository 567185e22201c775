#include "proto/bus/topic_match.hpp"

#include <gtest/gtest.h>
#include <string>

namespace proto::bus {
namespace {

TEST(TopicHash, OfTheNetworkMapsTopicIs0FCE) {
    static_assert(topic_hash("bus.discover_network") == 0x0FCE);
    EXPECT_EQ(topic_hash("bus.discover_network"), 0x0FCE);
}

TEST(TopicHash, FoldsFnv1aToHalfItsWidth) {
    // The published vectors of FNV-1a with 32 bits.
    EXPECT_EQ(fnv1a_hash32("", 0x811C9DC5), 0x811C9DC5U);
    EXPECT_EQ(fnv1a_hash32("a", 0x811C9DC5), 0xE40C292CU);
    EXPECT_EQ(fnv1a_hash32("foobar", 0x811C9DC5), 0xBF9CF968U);
    EXPECT_EQ(topic_hash("a"), 0xE40C ^ 0x292C);
}

TEST(TopicHash, TakesBytesAboveAsciiAsTheyAre) {
    EXPECT_EQ(fnv1a_hash32("\xff", 0x811C9DC5), (0x811C9DC5U ^ 0xffU) * 16777619U);
}

TEST(GlobMatch, AStarMatchesNothingToo) {
    EXPECT_TRUE(glob_match("*", ""));
    EXPECT_TRUE(glob_match("a*", "a"));
    EXPECT_TRUE(glob_match("*a", "a"));
    EXPECT_TRUE(glob_match("***", ""));
    EXPECT_TRUE(glob_match("", ""));
}

TEST(GlobMatch, GoesBackToTheLastStar) {
    EXPECT_TRUE(glob_match("a*b*c", "aXbYbZc"));
    EXPECT_TRUE(glob_match("*ab", "aaab"));
    EXPECT_TRUE(glob_match("*aab*", "aaaaab-"));
    EXPECT_FALSE(glob_match("a*b*c", "aXbYbZ"));
    EXPECT_FALSE(glob_match("*ab", "aaaba"));
}

TEST(GlobMatch, WithoutAStarTheWholeTextMustMatch) {
    EXPECT_FALSE(glob_match("abc", "abcd"));
    EXPECT_FALSE(glob_match("abcd", "abc"));
    EXPECT_FALSE(glob_match("", "a"));
    EXPECT_TRUE(glob_match("abc", "abc"));
}

TEST(GlobMatch, AStarMatchesDotsAndOtherStars) {
    EXPECT_TRUE(glob_match("a.*.z", "a.b.c.d.z"));
    EXPECT_TRUE(glob_match("a*z", "a*z"));
}

TEST(GlobMatch, CaseCountsAndNothingElseIsSpecial) {
    EXPECT_FALSE(glob_match("ABC", "abc"));
    EXPECT_FALSE(glob_match("a?c", "abc"));
    EXPECT_TRUE(glob_match("a?[b]\\*", "a?[b]\\x"));
}

TEST(GlobMatch, ManyStarsAgainstALongTextTakeNoMoreThanTheProductOfBoth) {
    // A search that went back to earlier stars would not live to see the end of this.
    std::string pattern;
    for (int i = 0; i < 30; ++i) {
        pattern += "a*";
    }
    EXPECT_FALSE(glob_match(pattern + "b", std::string(2000, 'a')));
    EXPECT_TRUE(glob_match(pattern + "b", std::string(2000, 'a') + "b"));
}

} // namespace
} // namespace proto::bus
