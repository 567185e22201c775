#include "libraries/compression/zlibCompression/payload_compression.hpp"

#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

namespace {

using proto::compression::compress_payload;
using proto::compression::decompress_payload;
using Bytes = std::vector<unsigned char>;

Bytes text_like(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>('a' + i * i % 23);
    }
    return bytes;
}

Bytes noise(std::size_t size) {
    std::mt19937 generator(1);
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    return bytes;
}

std::optional<Bytes> decompress(Bytes const& compressed, std::size_t expected_size) {
    return decompress_payload(compressed.data(), compressed.size(),
                              static_cast<unsigned int>(expected_size));
}

TEST(PayloadCompression, BringsEveryPayloadBack) {
    for (std::size_t const size : {1UL, 2UL, 1024UL, 1025UL, 4014UL, 1048576UL}) {
        for (Bytes const& payload : {text_like(size), noise(size), Bytes(size, 0)}) {
            auto const compressed = compress_payload(payload);
            ASSERT_TRUE(compressed) << size;
            EXPECT_EQ(decompress(*compressed, size), payload) << size;
        }
    }
}

TEST(PayloadCompression, MakesRepetitiveBytesSmaller) {
    EXPECT_LT(compress_payload(text_like(4096))->size(), 1000U);
}

TEST(PayloadCompression, IsAZlibStreamOfTheDefaultLevel) {
    auto const compressed = compress_payload(text_like(4096));
    EXPECT_EQ((*compressed)[0], 0x78);
    EXPECT_EQ((*compressed)[1], 0x9C);
}

TEST(PayloadCompression, OfNothingIsNothing) {
    EXPECT_FALSE(compress_payload({}));
}

TEST(PayloadDecompression, RefusesAWrongExpectedSize) {
    Bytes const payload = text_like(5000);
    auto const compressed = compress_payload(payload);
    EXPECT_FALSE(decompress(*compressed, 4999));
    EXPECT_FALSE(decompress(*compressed, 5001));
    EXPECT_TRUE(decompress(*compressed, 5000));
}

TEST(PayloadDecompression, RefusesNoBytesNoSizeAndNoExpectedSize) {
    auto const compressed = compress_payload(text_like(100));
    EXPECT_FALSE(decompress_payload(nullptr, compressed->size(), 100));
    EXPECT_FALSE(decompress_payload(compressed->data(), 0, 100));
    EXPECT_FALSE(decompress_payload(compressed->data(), compressed->size(), 0));
}

TEST(PayloadDecompression, RefusesEveryStreamThatIsCutShort) {
    auto const compressed = compress_payload(text_like(3000));
    for (std::size_t size = 1; size < compressed->size(); ++size) {
        EXPECT_FALSE(decompress_payload(compressed->data(), size, 3000)) << size;
    }
}

TEST(PayloadDecompression, NeverGivesOutAPayloadWithAByteDamaged) {
    Bytes const payload = text_like(3000);
    auto const compressed = compress_payload(payload);
    for (std::size_t i = 0; i < compressed->size(); ++i) {
        Bytes damaged = *compressed;
        damaged[i] ^= 0x55;
        auto const result = decompress(damaged, payload.size());
        EXPECT_TRUE(!result || *result == payload) << "byte " << i;
    }
}

TEST(PayloadDecompression, RefusesASizeThatNoStreamOfThatLengthHasBeforeItTakesMemoryForIt) {
    auto const compressed = compress_payload(text_like(100));
    EXPECT_FALSE(decompress(*compressed, std::numeric_limits<unsigned int>::max()));
}

TEST(PayloadDecompression, AcceptsTheDensestStreams) {
    Bytes const zeros(1048576, 0);
    auto const compressed = compress_payload(zeros);
    ASSERT_LT(compressed->size(), 1100U);
    EXPECT_EQ(decompress(*compressed, zeros.size()), zeros);
}

} // namespace
