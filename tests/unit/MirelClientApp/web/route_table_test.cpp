#include "MirelClientApp/web/route_table.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using mirelclient::HttpRequest;
using mirelclient::match_route;
using mirelclient::Route;
using mirelclient::Segment;
using mirelclient::split_pattern;
using mirelclient::WsRoute;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

HttpRequest request(std::string const& path, std::string const& method = "GET") {
    HttpRequest result;
    result.method = method;
    result.path = path;
    return result;
}

bool matches(std::string const& pattern, HttpRequest& path) {
    return match_route(Route{"GET", split_pattern(pattern), {}}, path);
}

bool matches(std::string const& pattern, std::string const& path) {
    HttpRequest asked = request(path);
    return matches(pattern, asked);
}

/// "literal", "{parameter}" or "{rest...}" as understood, so that a failure can be read.
std::string described(std::string const& piece) {
    auto const segments = split_pattern(piece);
    EXPECT_EQ(segments.size(), 1U);
    Segment const& segment = segments.at(0);
    return (segment.is_rest ? "rest " : segment.is_param ? "param " : "literal ") + segment.text;
}

} // namespace

TEST(SplitPattern, TellsLiteralsParametersAndRestsApart) {
    EXPECT_EQ(described("api"), "literal api");
    EXPECT_EQ(described("{name}"), "param name");
    EXPECT_EQ(described("{path...}"), "rest path");
}

TEST(SplitPattern, BracesAloneAreALiteral) {
    EXPECT_EQ(described("{}"), "literal {}");
}

TEST(SplitPattern, DotsAloneAreAParametersName) {
    EXPECT_EQ(described("{...}"), "param ...");
    EXPECT_EQ(described("{a...}"), "rest a");
}

TEST(SplitPattern, ABraceAtOneEndIsALiteral) {
    EXPECT_EQ(described("{name"), "literal {name");
    EXPECT_EQ(described("name}"), "literal name}");
    EXPECT_EQ(described("x{name}"), "literal x{name}");
}

TEST(SplitPattern, EveryRestIsAParameterToo) {
    EXPECT_TRUE(split_pattern("/a/{rest...}").at(1).is_param);
}

TEST(MatchRoute, ComparesTheMethodExactly) {
    HttpRequest lower = request("/", "get");
    EXPECT_FALSE(matches("/", lower));
    HttpRequest upper = request("/");
    EXPECT_TRUE(matches("/", upper));
}

TEST(MatchRoute, EmptyPiecesOfThePathVanish) {
    EXPECT_TRUE(matches("/api/packages", "/api/packages/"));
    EXPECT_TRUE(matches("/api/packages", "//api///packages"));
    EXPECT_TRUE(matches("/", "///"));
}

TEST(MatchRoute, NeedsAsManyPiecesAsSegments) {
    EXPECT_FALSE(matches("/api/packages", "/api"));
    EXPECT_FALSE(matches("/api/packages", "/api/packages/x"));
    EXPECT_FALSE(matches("/", "/api"));
}

TEST(MatchRoute, LiteralsMustBeEqual) {
    EXPECT_FALSE(matches("/api/packages", "/api/Packages"));
    EXPECT_TRUE(matches("/{}", "/{}"));
    EXPECT_FALSE(matches("/{}", "/x"));
}

TEST(MatchRoute, CapturesParameters) {
    HttpRequest asked = request("/api/packages/x y/files/7");
    ASSERT_TRUE(matches("/api/packages/{name}/files/{id}", asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("id", "7"), Pair("name", "x y")));
}

TEST(MatchRoute, RestCapturesAllFurtherPieces) {
    HttpRequest asked = request("/static/novnc//core/rfb.js/");
    ASSERT_TRUE(matches("/static/{path...}", asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("path", "novnc/core/rfb.js")));
}

TEST(MatchRoute, RestMayBeEmpty) {
    HttpRequest asked = request("/static/novnc/core/");
    ASSERT_TRUE(matches("/static/novnc/core/{path...}", asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("path", "")));
    EXPECT_FALSE(matches("/static/novnc/core/{path...}", "/static/novnc"));
}

TEST(MatchRoute, RestThatIsNotLastNeedsTheExactCount) {
    HttpRequest asked = request("/a/b/c");
    ASSERT_TRUE(matches("/a/{r...}/c", asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("r", "b/c")));
    EXPECT_FALSE(matches("/a/{r...}/c", "/a/b/b/c"));
    EXPECT_FALSE(matches("/a/{r...}/c", "/a/b/d"));
}

TEST(MatchRoute, ReplacesTheCapturesOnlyOnSuccess) {
    HttpRequest asked = request("/a/b");
    asked.params["old"] = "x";
    EXPECT_FALSE(matches("/{one}/c", asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("old", "x")));
    EXPECT_TRUE(matches("/a/b", asked));
    EXPECT_THAT(asked.params, IsEmpty());
}

TEST(MatchRoute, ServesWebSocketRoutesToo) {
    HttpRequest asked = request("/api/vnc/ws");
    EXPECT_TRUE(match_route(WsRoute{"GET", split_pattern("/api/{kind}/ws"), {}}, asked));
    EXPECT_THAT(asked.params, ElementsAre(Pair("kind", "vnc")));
}
