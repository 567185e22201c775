#include "tools/mirelpack/PayloadIndex.hpp"

#include <gtest/gtest.h>

namespace mirelpack {
namespace {

using Kind = PayloadIndex::Kind;

PayloadIndex sample() {
    PayloadIndex index;
    index.add("bin", {Kind::Directory, 0755, ""});
    index.add("bin/app", {Kind::File, 0755, ""});
    index.add("deep/down/tool", {Kind::File, 0644, ""});
    index.add("pipe", {Kind::Other, 0644, ""});
    return index;
}

TEST(PayloadIndex, MemberNamesAreNormalised) {
    EXPECT_EQ(PayloadIndex::normal_path("./a//b/./c/"), "a/b/c");
    EXPECT_EQ(PayloadIndex::normal_path("./"), "");
    EXPECT_EQ(PayloadIndex::normal_path("a..b"), "a..b");
    EXPECT_FALSE(PayloadIndex::normal_path("/a"));
    EXPECT_FALSE(PayloadIndex::normal_path("a/../b"));
    EXPECT_FALSE(PayloadIndex::normal_path(".."));
}

TEST(PayloadIndex, OnlyRegularFilesAreFound) {
    auto const index = sample();
    EXPECT_EQ(index.find_file("bin/app")->mode, 0755U);
    EXPECT_EQ(index.find_file("./bin//app")->mode, 0755U);
    for (char const* path : {"", "bin", "pipe", "no", "bin/no", "bin/app/x", "/bin/app"}) {
        EXPECT_FALSE(index.find_file(path)) << path;
    }
}

TEST(PayloadIndex, AFolderNeedsNoMemberOfItsOwn) {
    EXPECT_TRUE(sample().find_file("deep/down/tool"));
}

TEST(PayloadIndex, LinksAreFollowedAsTheInstalledTreeWould) {
    auto index = sample();
    index.add("run", {Kind::SymbolicLink, 0777, "bin/app"});
    index.add("current", {Kind::SymbolicLink, 0777, "./bin"});
    index.add("bin/up", {Kind::SymbolicLink, 0777, "../deep/down/tool"});
    index.add("bin/same", {Kind::HardLink, 0755, "bin/app"});
    EXPECT_TRUE(index.find_file("run"));
    EXPECT_TRUE(index.find_file("current/app"));
    EXPECT_TRUE(index.find_file("current/up"));
    EXPECT_TRUE(index.find_file("current/same"));
}

TEST(PayloadIndex, LinksThatLeaveThePayloadFindNothing) {
    auto index = sample();
    index.add("out", {Kind::SymbolicLink, 0777, "../bin/app"});
    index.add("bin/out", {Kind::SymbolicLink, 0777, "../../x/bin/app"});
    index.add("absolute", {Kind::SymbolicLink, 0777, "/bin/app"});
    index.add("dangling", {Kind::SymbolicLink, 0777, "nothing"});
    for (char const* path : {"out", "bin/out", "absolute", "dangling"}) {
        EXPECT_FALSE(index.find_file(path)) << path;
    }
}

TEST(PayloadIndex, ACircleOfLinksEnds) {
    auto index = sample();
    index.add("a", {Kind::SymbolicLink, 0777, "b"});
    index.add("b", {Kind::SymbolicLink, 0777, "a"});
    index.add("self", {Kind::HardLink, 0777, "self"});
    EXPECT_FALSE(index.find_file("a"));
    EXPECT_FALSE(index.find_file("self"));
}

} // namespace
} // namespace mirelpack
