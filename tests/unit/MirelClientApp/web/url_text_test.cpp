#include "MirelClientApp/web/url_text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <string>

using mirelclient::parse_query_string;
using mirelclient::split;
using mirelclient::url_decode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

std::map<std::string, std::string> query(std::string_view text) {
    std::map<std::string, std::string> out;
    parse_query_string(text, out);
    return out;
}

} // namespace

TEST(Split, DropsEmptyPieces) {
    EXPECT_THAT(split("/a//b/", '/'), ElementsAre("a", "b"));
}

TEST(Split, OfDelimitersAloneGivesNothing) {
    EXPECT_THAT(split("/", '/'), IsEmpty());
    EXPECT_THAT(split("", '/'), IsEmpty());
}

TEST(Split, WithoutADelimiterGivesTheWhole) {
    EXPECT_THAT(split("abc", '/'), ElementsAre("abc"));
}

TEST(UrlDecode, ReplacesHexPairsOfEitherCase) {
    EXPECT_EQ(url_decode("a%20b%2Fc%2fd"), "a b/c/d");
    EXPECT_EQ(url_decode("%C3%a9"), "\xc3\xa9");
    EXPECT_EQ(url_decode("%00"), std::string(1, '\0'));
}

TEST(UrlDecode, LeavesAPercentWithoutTwoHexDigitsAsItStands) {
    EXPECT_EQ(url_decode("%zz"), "%zz");
    EXPECT_EQ(url_decode("a%4"), "a%4");
    EXPECT_EQ(url_decode("%"), "%");
    EXPECT_EQ(url_decode("%4g"), "%4g");
    EXPECT_EQ(url_decode("%0x41"), "%0x41");
}

TEST(UrlDecode, LeavesAPlusAsItStands) {
    EXPECT_EQ(url_decode("a+b"), "a+b");
}

TEST(UrlDecode, DecodesOnlyOnce) {
    EXPECT_EQ(url_decode("%2541"), "%41");
}

TEST(UrlDecode, GoesOnBehindAPercentThatIsNone) {
    EXPECT_EQ(url_decode("%%41"), "%A");
}

// strtol takes a sign and leading white space, and so does every client that relies on it.
TEST(UrlDecode, TakesWhatStrtolTakes) {
    EXPECT_EQ(url_decode("%+4"), "\x04");
    EXPECT_EQ(url_decode("%-1"), "\xff");
    EXPECT_EQ(url_decode("% 4"), "\x04");
}

TEST(QueryString, SplitsAtTheFirstEqualsSign) {
    EXPECT_THAT(query("a=1&b=2=3"), ElementsAre(Pair("a", "1"), Pair("b", "2=3")));
}

TEST(QueryString, PieceWithoutEqualsSignHasAnEmptyValue) {
    EXPECT_THAT(query("flag&a%20b"), ElementsAre(Pair("a b", ""), Pair("flag", "")));
}

TEST(QueryString, LaterDuplicateOverwrites) {
    EXPECT_THAT(query("a=1&a=2"), ElementsAre(Pair("a", "2")));
}

TEST(QueryString, DecodesKeyAndValueAfterTheSplit) {
    EXPECT_THAT(query("a%3Db=c%26d+e"), ElementsAre(Pair("a=b", "c&d+e")));
}

TEST(QueryString, SkipsEmptyPiecesAndKeepsAnEmptyKey) {
    EXPECT_THAT(query("&&=v&"), ElementsAre(Pair("", "v")));
    EXPECT_THAT(query(""), IsEmpty());
}
