#include "MirelClientApp/web/sha1.hpp"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace mirelclient::detail {
namespace {

std::string hex(Sha1::Digest const& digest) {
    constexpr std::string_view K_DIGITS = "0123456789abcdef";
    std::string text;
    for (std::uint8_t const byte : digest) {
        text += K_DIGITS[byte >> 4];
        text += K_DIGITS[byte & 15];
    }
    return text;
}

std::string sha1_of(std::string_view text) {
    Sha1 sha1;
    sha1.update(text.data(), text.size());
    return hex(sha1.digest());
}

TEST(Sha1, GivesThePublishedDigests) {
    EXPECT_EQ(sha1_of(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1_of("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1_of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(sha1_of("The quick brown fox jumps over the lazy dog"),
              "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12");
    EXPECT_EQ(sha1_of(std::string(1'000'000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, PadsEveryLengthAroundABlock) {
    EXPECT_EQ(sha1_of(std::string(55, 'a')), "c1c8bbdc22796e28c0e15163d20899b65621d65a");
    EXPECT_EQ(sha1_of(std::string(56, 'a')), "c2db330f6083854c99d4b5bfb6e8f29f201be699");
    EXPECT_EQ(sha1_of(std::string(63, 'a')), "03f09f5b158a7a8cdad920bddc29b81c18a551f5");
    EXPECT_EQ(sha1_of(std::string(64, 'a')), "0098ba824b5c16427bd7a1122a5a442a25ec644d");
    EXPECT_EQ(sha1_of(std::string(65, 'a')), "11655326c708d70319be2610e8a57d9a5b959d3b");
}

TEST(Sha1, DoesNotCareInWhichPiecesTheTextComes) {
    std::string const text(1000, 'q');
    for (std::size_t piece : {1U, 3U, 63U, 64U, 65U, 999U}) {
        Sha1 sha1;
        for (std::size_t at = 0; at < text.size(); at += piece) {
            sha1.update(text.data() + at, std::min(piece, text.size() - at));
        }
        EXPECT_EQ(hex(sha1.digest()), sha1_of(text)) << piece;
    }
}

TEST(Sha1, BeginsAnewAfterADigestAndAReset) {
    Sha1 sha1;
    sha1.update("xyz", 3);
    sha1.digest();
    sha1.update("abc", 3);
    EXPECT_EQ(hex(sha1.digest()), sha1_of("abc"));
    sha1.update("xyz", 3);
    sha1.reset();
    EXPECT_EQ(hex(sha1.digest()), sha1_of(""));
}

} // namespace
} // namespace mirelclient::detail
