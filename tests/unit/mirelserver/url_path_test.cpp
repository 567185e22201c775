#include "mirelserver/url_path.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirelserver {
namespace {

using testing::ElementsAre;
using testing::Optional;

TEST(UrlPath, PathOfATargetHasNoQuery) {
    EXPECT_EQ(path_of_target("/a/b?c=/d?e"), "/a/b");
    EXPECT_EQ(path_of_target("/a/b"), "/a/b");
    EXPECT_EQ(path_of_target("/?"), "/");
}

TEST(UrlPath, PathOfAnAbsoluteTargetBeginsBehindTheAuthority) {
    EXPECT_EQ(path_of_target("http://host:80/a?x"), "/a");
    EXPECT_EQ(path_of_target("http://host"), "/");
    EXPECT_EQ(path_of_target("*"), "*");
    EXPECT_EQ(path_of_target(""), "");
}

TEST(UrlPath, PercentSignsAreDecoded) {
    EXPECT_THAT(percent_decode("%41b%2Fc%2f%7E"), Optional(std::string("Ab/c/~")));
    EXPECT_THAT(percent_decode(""), Optional(std::string()));
    EXPECT_THAT(percent_decode("a+b"), Optional(std::string("a+b")));
}

TEST(UrlPath, BrokenPercentSignsAreRefused) {
    for (char const* text : {"%", "%4", "a%4", "%zz", "%4g", "%g4", "%-1", "%00", "%%41"}) {
        EXPECT_FALSE(percent_decode(text)) << text;
    }
}

TEST(UrlPath, ComponentsAreSplitBeforeTheyAreDecoded) {
    EXPECT_THAT(split_path("/a/b%2Fc"), Optional(ElementsAre("a", "b/c")));
    EXPECT_THAT(split_path("/%2e%2e/a"), Optional(ElementsAre("..", "a")));
}

TEST(UrlPath, NothingIsCollapsed) {
    EXPECT_THAT(split_path("/"), Optional(ElementsAre("")));
    EXPECT_THAT(split_path("//a/./../"), Optional(ElementsAre("", "a", ".", "..", "")));
}

TEST(UrlPath, APathBeginsWithASlash) {
    EXPECT_FALSE(split_path(""));
    EXPECT_FALSE(split_path("*"));
    EXPECT_FALSE(split_path("a/b"));
    EXPECT_FALSE(split_path("/a/%"));
}

TEST(UrlPath, PlainNamesCanNeitherHideNorClimb) {
    for (char const* name :
         {"a", "0", "hello", "1.2.3-dev.4+b~1", "A_b", "-a", "a..", "\xc3\xbc"}) {
        EXPECT_TRUE(is_plain_name(name)) << name;
    }
    for (char const* name : {"", ".", "..", ".lock", "a/b", "/", "/a"}) {
        EXPECT_FALSE(is_plain_name(name)) << name;
    }
}

} // namespace
} // namespace mirelserver
