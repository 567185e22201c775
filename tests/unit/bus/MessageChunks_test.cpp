#include "bus/MessageChunks.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <random>

namespace tessaron::bus {
namespace {

using Bytes = MessageChunks::Bytes;

TEST(MessageChunks, JoinsThoseThatComeInOrder) {
    MessageChunks chunks;
    chunks.add(0, {1, 2});
    EXPECT_FALSE(chunks.are_all_to(1));
    chunks.add(1, {3});
    EXPECT_TRUE(chunks.are_all_to(1));
    EXPECT_EQ(chunks.count(), 2U);
    EXPECT_EQ(chunks.size(), 3U);
    EXPECT_EQ(chunks.take(), (Bytes{1, 2, 3}));
}

TEST(MessageChunks, OnesBehindAGapWaitForItToClose) {
    MessageChunks chunks;
    chunks.expect(7);
    chunks.add(3, {6, 7});
    chunks.add(1, {3});
    EXPECT_EQ(chunks.count(), 2U);
    EXPECT_EQ(chunks.size(), 3U);
    EXPECT_FALSE(chunks.are_all_to(1)) << "the first is missing, and one lies behind";
    chunks.add(0, {1, 2});
    EXPECT_FALSE(chunks.are_all_to(1)) << "one lies behind";
    chunks.add(2, {4, 5});
    EXPECT_TRUE(chunks.are_all_to(3));
    EXPECT_EQ(chunks.size(), 7U);
    EXPECT_EQ(chunks.take(), (Bytes{1, 2, 3, 4, 5, 6, 7}));
}

TEST(MessageChunks, ARepeatedOneReplacesTheEarlierWhateverItsSize) {
    for (Bytes const& second : {Bytes{8, 9}, Bytes{8}, Bytes{7, 8, 9}, Bytes{}}) {
        MessageChunks chunks;
        chunks.expect(6);
        chunks.add(0, {1, 2});
        chunks.add(1, {3, 4});
        chunks.add(2, {5, 6});
        chunks.add(1, Bytes(second));
        chunks.add(2, {10}); // It lies where the replaced one has left it.
        EXPECT_EQ(chunks.count(), 3U);
        EXPECT_EQ(chunks.size(), 3 + second.size());
        Bytes expected{1, 2};
        expected.insert(expected.end(), second.begin(), second.end());
        expected.push_back(10);
        EXPECT_EQ(chunks.take(), expected);
    }
}

TEST(MessageChunks, AMessageLargerThanExpectedTakesUpNoMoreThanItHas) {
    MessageChunks chunks;
    EXPECT_EQ(chunks.memory(), 0U);
    chunks.expect(5);
    EXPECT_EQ(chunks.memory(), 5U);
    for (std::uint16_t index = 0; index < 10; ++index) {
        chunks.add(index, {1, 2});
        EXPECT_LE(chunks.memory(), std::max<std::size_t>(5, chunks.size() + 1)) << index;
    }
    EXPECT_TRUE(chunks.are_all_to(9));
    EXPECT_EQ(chunks.take().size(), 20U);
}

TEST(MessageChunks, OneThatHadNoRoomIsReplacedWhereItIsWhenThereIs) {
    MessageChunks chunks;
    chunks.expect(4);
    chunks.add(0, {1, 2, 3});
    chunks.add(1, {4, 5});
    chunks.add(0, {1});
    chunks.add(1, {6, 7});
    EXPECT_EQ(chunks.count(), 2U);
    EXPECT_TRUE(chunks.are_all_to(1));
    EXPECT_EQ(chunks.take(), (Bytes{1, 6, 7}));
}

TEST(MessageChunks, ARepeatedOneBehindAGapReplacesTheEarlier) {
    MessageChunks chunks;
    chunks.add(1, {1, 2, 3});
    chunks.add(1, {4});
    EXPECT_EQ(chunks.count(), 1U);
    EXPECT_EQ(chunks.size(), 1U);
    chunks.add(0, {});
    EXPECT_TRUE(chunks.are_all_to(1));
    EXPECT_EQ(chunks.take(), Bytes{4});
}

TEST(MessageChunks, HoldsWhatATableWouldInAnyOrderAndWithRepeats) {
    std::mt19937 random(5);
    for (int round = 0; round < 500; ++round) {
        MessageChunks chunks;
        chunks.expect(random() % 100);
        std::map<std::uint16_t, Bytes> table;
        for (int i = 0; i < 40; ++i) {
            auto const index = static_cast<std::uint16_t>(random() % 12);
            Bytes chunk(random() % 5, static_cast<std::uint8_t>(random()));
            table[index] = chunk;
            chunks.add(index, std::move(chunk));
            std::size_t size = 0;
            for (auto const& [number, bytes] : table) {
                size += bytes.size();
            }
            ASSERT_EQ(chunks.size(), size);
            ASSERT_EQ(chunks.count(), table.size());
            auto const last = table.rbegin()->first;
            ASSERT_EQ(chunks.are_all_to(last), table.size() == last + 1U);
        }
        if (chunks.are_all_to(table.rbegin()->first)) {
            Bytes expected;
            for (auto const& [number, bytes] : table) {
                expected.insert(expected.end(), bytes.begin(), bytes.end());
            }
            EXPECT_EQ(chunks.take(), expected);
        }
    }
}

} // namespace
} // namespace tessaron::bus
