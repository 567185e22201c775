// The vectors are those of RFC 8439; the headings name its sections.
#include "libraries/crypto/chacha20/ChaCha20.hpp"

#include <cctype>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace {

using proto::crypto::ChaCha20;
using Bytes = std::vector<unsigned char>;

Bytes from_hex(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (char const c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits += c;
        }
        if (digits.size() == 2) {
            bytes.push_back(static_cast<unsigned char>(std::stoi(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

ChaCha20::Key counting_key() {
    ChaCha20::Key key;
    std::iota(key.begin(), key.end(), static_cast<unsigned char>(0));
    return key;
}

ChaCha20::Nonce nonce_of(std::string_view hex) {
    ChaCha20::Nonce nonce{};
    Bytes const bytes = from_hex(hex);
    std::copy(bytes.begin(), bytes.end(), nonce.begin());
    return nonce;
}

Bytes to_bytes(ChaCha20::Block const& block) {
    return {block.begin(), block.end()};
}

// 2.3.2
TEST(ChaCha20, BlockOfACountingKey) {
    ChaCha20 const cipher(counting_key());
    EXPECT_EQ(to_bytes(cipher.block(nonce_of("000000090000004a00000000"), 1)),
              from_hex("10f1e7e4d13b5915500fdd1fa32071c4c7d1f4c733c068030422aa9ac3d46c4e"
                       "d2826446079faa0914c2d705d98b02a2b5129cd1de164eb9cbd083e8a2503c4e"));
}

// A.1, vectors 1 and 2
TEST(ChaCha20, BlocksOfAKeyOfZeros) {
    ChaCha20 const cipher(ChaCha20::Key{});
    EXPECT_EQ(to_bytes(cipher.block({}, 0)),
              from_hex("76b8e0ada0f13d90405d6ae55386bd28bdd219b8a08ded1aa836efcc8b770dc7"
                       "da41597c5157488d7724e03fb8d84a376a43b8f41518a11cc387b669b2ee6586"));
    EXPECT_EQ(to_bytes(cipher.block({}, 1)),
              from_hex("9f07e7be5551387a98ba977c732d080dcb0f29a048e3656912c6533e32ee7aed"
                       "29b721769ce64e43d57133b074d839d531ed1f28510afb45ace10a1f4b794d6f"));
}

// 2.4.2: two blocks, the second not whole
TEST(ChaCha20, EncryptsTheSunscreenText) {
    std::string const text = "Ladies and Gentlemen of the class of '99: If I could offer you "
                             "only one tip for the future, sunscreen would be it.";
    Bytes bytes(text.begin(), text.end());
    ChaCha20 const cipher(counting_key());
    auto const nonce = nonce_of("000000000000004a00000000");
    cipher.encrypt(bytes, nonce, 1);
    EXPECT_EQ(bytes, from_hex("6e2e359a2568f98041ba0728dd0d6981e97e7aec1d4360c20a27afccfd9fae0b"
                              "f91b65c5524733ab8f593dabcd62b3571639d624e65152ab8f530c359f0861d8"
                              "07ca0dbf500d6a6156a38e088a22b65e52bc514d16ccf806818ce91ab7793736"
                              "5af90bbf74a35be6b40b8eedf2785e42874d"));
    cipher.apply(bytes, nonce, 1);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text);
}

// A.2, vector 1
TEST(ChaCha20, EncryptsABlockOfZerosToTheKeyStream) {
    Bytes bytes(64, 0);
    ChaCha20(ChaCha20::Key{}).encrypt(bytes, {}, 0);
    EXPECT_EQ(bytes, from_hex("76b8e0ada0f13d90405d6ae55386bd28bdd219b8a08ded1aa836efcc8b770dc7"
                              "da41597c5157488d7724e03fb8d84a376a43b8f41518a11cc387b669b2ee6586"));
}

TEST(ChaCha20, CountsUpFromBlockToBlockOverManyBlocks) {
    ChaCha20 const cipher(counting_key());
    auto const nonce = nonce_of("0102030405060708090a0b0c");
    Bytes bytes(10 * ChaCha20::K_BLOCK_SIZE + 5, 0);
    cipher.apply_in_place(bytes.data(), bytes.size(), nonce, 7);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        auto const counter = static_cast<std::uint32_t>(7 + i / ChaCha20::K_BLOCK_SIZE);
        ASSERT_EQ(bytes[i], cipher.block(nonce, counter)[i % ChaCha20::K_BLOCK_SIZE]) << i;
    }
}

TEST(ChaCha20, TheCounterStartsOverAfterItsLastValue) {
    ChaCha20 const cipher(counting_key());
    Bytes bytes(2 * ChaCha20::K_BLOCK_SIZE, 0);
    cipher.apply(bytes, {}, 0xFFFFFFFF);
    auto const second = cipher.block({}, 0);
    EXPECT_TRUE(std::equal(second.begin(), second.end(), bytes.begin() + ChaCha20::K_BLOCK_SIZE));
}

TEST(ChaCha20, LeavesNothingAsItIs) {
    Bytes bytes;
    ChaCha20(counting_key()).apply(bytes, {}, 0);
    EXPECT_TRUE(bytes.empty());
}

} // namespace
