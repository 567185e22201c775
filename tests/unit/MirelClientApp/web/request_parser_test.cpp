#include "MirelClientApp/web/request_parser.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using mirelclient::HttpRequest;
using mirelclient::parse_request;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

HttpRequest parsed(std::string_view raw) {
    auto const request = parse_request(raw);
    EXPECT_TRUE(request.has_value());
    return request.value_or(HttpRequest{});
}

} // namespace

TEST(ParseRequest, TakesARequestApart) {
    HttpRequest const request =
        parsed("POST /api/a%20b?x=1&y HTTP/1.1\r\nHost: h:80\r\nContent-Length: 2\r\n\r\nhi");
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/api/a b");
    EXPECT_THAT(request.query, ElementsAre(Pair("x", "1"), Pair("y", "")));
    EXPECT_THAT(request.params, IsEmpty());
    EXPECT_THAT(request.headers, ElementsAre(Pair("content-length", "2"), Pair("host", "h:80")));
    EXPECT_EQ(request.body, "hi");
}

TEST(ParseRequest, WithoutABlankLineIsNothing) {
    EXPECT_FALSE(parse_request("GET / HTTP/1.1\r\nHost: x\r\n"));
    EXPECT_FALSE(parse_request(""));
    EXPECT_FALSE(parse_request("GET / HTTP/1.1\n\n"));
}

TEST(ParseRequest, WithoutTwoTokensOnTheFirstLineIsNothing) {
    EXPECT_FALSE(parse_request("\r\n\r\n"));
    EXPECT_FALSE(parse_request("GET\r\n\r\n"));
    EXPECT_FALSE(parse_request("   \r\nGET / HTTP/1.1\r\n\r\n"));
    EXPECT_FALSE(parse_request("\nGET / HTTP/1.1\r\n\r\n"));
}

TEST(ParseRequest, NeedsNoVersion) {
    HttpRequest const request = parsed("GET /\r\n\r\n");
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, "/");
}

TEST(ParseRequest, IgnoresFurtherTokensAndAnyWhiteSpaceBetween) {
    HttpRequest const request = parsed(" \tGET\v\f/x \r HTTP/9 more tokens\r\n\r\n");
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, "/x");
}

TEST(ParseRequest, KeepsTheCaseOfTheMethod) {
    EXPECT_EQ(parsed("get /\r\n\r\n").method, "get");
}

TEST(ParseRequest, SkipsAHeaderLineWithoutAColon) {
    EXPECT_THAT(parsed("GET /\r\nnonsense\r\nA: 1\r\n\r\n").headers, ElementsAre(Pair("a", "1")));
}

TEST(ParseRequest, HeaderNamesOfEitherCaseFillTheSameEntry) {
    EXPECT_THAT(parsed("GET /\r\nContent-Type: a\r\ncontent-type: b\r\n\r\n").headers,
                ElementsAre(Pair("content-type", "b")));
}

TEST(ParseRequest, RemovesLeadingBlanksOfAValueAndNothingElse) {
    EXPECT_THAT(parsed("GET /\r\nA:   x y \t\r\nB:\tz\r\nC \t: 1\r\n: 2\r\nD:\r\n\r\n").headers,
                ElementsAre(Pair("", "2"), Pair("a", "x y \t"), Pair("b", "\tz"), Pair("c \t", "1"),
                            Pair("d", "")));
}

TEST(ParseRequest, SplitsAHeaderAtItsFirstColon) {
    EXPECT_THAT(parsed("GET /\r\nA: b:c\r\n\r\n").headers, ElementsAre(Pair("a", "b:c")));
}

TEST(ParseRequest, AcceptsBareNewlinesBetweenHeaderLines) {
    EXPECT_THAT(parsed("GET /\nA: 1\nB: 2\r\n\r\n").headers,
                ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(ParseRequest, RemovesOneCarriageReturnAtMost) {
    EXPECT_THAT(parsed("GET /\r\nA: 1\r\r\nB: 2\r\n\r\n").headers,
                ElementsAre(Pair("a", "1\r"), Pair("b", "2")));
}

TEST(ParseRequest, DecodesThePathAsAWholeBehindTheSplitAtTheQuestionMark) {
    HttpRequest const request = parsed("GET /a%3Fb?c?d=e HTTP/1.1\r\n\r\n");
    EXPECT_EQ(request.path, "/a?b");
    EXPECT_THAT(request.query, ElementsAre(Pair("c?d", "e")));
}

TEST(ParseRequest, LeavesBadEscapesAndPlusSignsInThePath) {
    EXPECT_EQ(parsed("GET /%zz/a+b/%4\r\n\r\n").path, "/%zz/a+b/%4");
}

TEST(ParseRequest, DoesNotCutTheBodyToTheDeclaredLength) {
    EXPECT_EQ(parsed("POST /\r\nContent-Length: 2\r\n\r\nhello\r\n\r\n").body, "hello\r\n\r\n");
}

TEST(ParseRequest, LeavesHeaderLinesOfTheBodyAlone) {
    HttpRequest const request = parsed("POST /\r\n\r\nA: 1\r\n");
    EXPECT_THAT(request.headers, IsEmpty());
    EXPECT_EQ(request.body, "A: 1\r\n");
}
