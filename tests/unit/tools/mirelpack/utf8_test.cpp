#include "tools/mirelpack/utf8.hpp"

#include <gtest/gtest.h>

namespace mirelpack {
namespace {

TEST(Utf8, WellFormedTextIsAccepted) {
    for (char const* text : {"", "plain", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                             "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf"}) {
        EXPECT_TRUE(is_utf8(text)) << text;
    }
}

TEST(Utf8, EverythingElseIsRefused) {
    for (char const* text : {"\xff", "\x80", "\xc3", "\xc3(", "\xe2\x82", "\xc0\xaf",
                             "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                             "\xf8\x88\x80\x80"
                             "\x80"}) {
        EXPECT_FALSE(is_utf8(text)) << text;
    }
}

} // namespace
} // namespace mirelpack
