#include "libraries/crc/crcFast/CrcFast.hpp"
#include "libraries/crc/crcSoft/CrcSoft.hpp"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using proto::CrcFast;
using proto::CrcSoft;
using Bytes = tessaron::CustomSpan<unsigned char>;

std::vector<unsigned char> random_bytes(std::size_t size) {
    std::mt19937 generator(4711);
    std::vector<unsigned char> bytes(size);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    return bytes;
}

std::vector<unsigned char> bytes_of(std::string const& text) {
    return {text.begin(), text.end()};
}

template <typename Crc>
class AnyCrc : public testing::Test {
protected:
    Crc crc_;
};

using BothCrcs = testing::Types<CrcSoft, CrcFast>;
TYPED_TEST_SUITE(AnyCrc, BothCrcs);

TYPED_TEST(AnyCrc, OfTheNineDigitsIsTheStandardsCheckValue) {
    auto digits = bytes_of("123456789");
    EXPECT_EQ(this->crc_.calc({digits.data(), digits.size()}), 0xCBF43926U);
}

TYPED_TEST(AnyCrc, OfNothingIsZero) {
    EXPECT_EQ(this->crc_.calc({}), 0U);
}

TYPED_TEST(AnyCrc, AppendingNothingLeavesTheValueAsItIs) {
    EXPECT_EQ(this->crc_.append(0xCBF43926U, {}), 0xCBF43926U);
}

TYPED_TEST(AnyCrc, InTwoPartsIsThatOfTheWholeWhereverItIsCut) {
    auto bytes = random_bytes(300);
    Bytes const all(bytes.data(), bytes.size());
    unsigned int const expected = this->crc_.calc(all);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        unsigned int const first = this->crc_.append(0, all.subspan(0, cut));
        ASSERT_EQ(this->crc_.append(first, all.subspan(cut)), expected) << "cut at " << cut;
    }
}

TYPED_TEST(AnyCrc, HoldsNoStateThatAResetOrAnEarlierCallCouldChange) {
    auto digits = bytes_of("123456789");
    Bytes const all(digits.data(), digits.size());
    this->crc_.append(17, all);
    EXPECT_EQ(this->crc_.calc(all), 0xCBF43926U);
    unsigned int const first = this->crc_.append(0, all.subspan(0, 4));
    this->crc_.reset();
    EXPECT_EQ(this->crc_.append(first, all.subspan(4)), 0xCBF43926U);
}

TYPED_TEST(AnyCrc, ServesSeveralThreadsAtOnce) {
    auto bytes = random_bytes(5000);
    Bytes const all(bytes.data(), bytes.size());
    unsigned int const expected = this->crc_.calc(all);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(this->crc_.calc(all), expected);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(CrcSoft, HasItsName) {
    EXPECT_EQ(CrcSoft().name(), "crc32 arm module");
}

TEST(CrcFast, AgreesWithTheTableForEveryLengthAndAlignment) {
    CrcSoft const soft;
    CrcFast const fast;
    auto bytes = random_bytes(1200);
    Bytes const all(bytes.data(), bytes.size());
    for (std::size_t offset = 0; offset < 64; ++offset) {
        for (std::size_t size = 0; size <= 1100; size += size < 300 ? 1 : 37) {
            Bytes const part = all.subspan(offset, size);
            ASSERT_EQ(fast.calc(part), soft.calc(part)) << size << " bytes at " << offset;
        }
    }
}

TEST(CrcFast, AgreesWithTheTableOnLargeBuffers) {
    CrcSoft const soft;
    CrcFast const fast;
    auto bytes = random_bytes(1 << 20);
    for (std::size_t const size : {4096UL, 65507UL, 1048575UL, 1048576UL}) {
        Bytes const part(bytes.data(), size);
        EXPECT_EQ(fast.calc(part), soft.calc(part)) << size << " bytes";
    }
}

TEST(CrcFast, AgreesWithTheTableOnFieldsOfRandomSizesAppendedOneByOne) {
    CrcSoft const soft;
    CrcFast const fast;
    auto bytes = random_bytes(100'000);
    Bytes const all(bytes.data(), bytes.size());
    std::mt19937 generator(99);
    unsigned int by_table = 0;
    unsigned int by_processor = 0;
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t const size = std::min<std::size_t>(generator() % 64, bytes.size() - at);
        by_table = soft.append(by_table, all.subspan(at, size));
        by_processor = fast.append(by_processor, all.subspan(at, size));
        ASSERT_EQ(by_processor, by_table) << "at " << at;
        at += size;
    }
}

} // namespace
