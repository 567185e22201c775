#include "MirelClientApp/web/base64.hpp"

#include <gtest/gtest.h>
#include <string_view>

namespace mirelclient::detail {
namespace {

std::string encoded(std::string_view text) {
    return base64_encode(text.data(), text.size());
}

TEST(Base64, EncodesThePublishedTexts) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("foob"), "Zm9vYg==");
    EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
}

TEST(Base64, UsesTheStandardAlphabetForEveryValue) {
    EXPECT_EQ(encoded(std::string_view("\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f", 12)),
              "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(encoded("\xfb\xff\xbf"), "+/+/");
    EXPECT_EQ(encoded("\xff\xff\xff"), "////");
}

} // namespace
} // namespace mirelclient::detail
