#include "bus/FragmentAssembler.hpp"

#include "tests/support/fragments.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <vector>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using test::fragment;

constexpr FragmentAssembler::TimePoint K_START{1h};

TEST(FragmentAssembler, JoinsFragmentsInTheirOrder) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1, 2}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 1, false, {3, 4}), K_START));
    auto const message = assembler.add(fragment(1, 2, true, {5}), K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(assembler.assemblies(), 0U);
    EXPECT_EQ(assembler.held_size(), 0U);
}

TEST(FragmentAssembler, FragmentsThatArriveLastFirstReassemble) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 2, true, {5}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 1, false, {3, 4}), K_START));
    auto const message = assembler.add(fragment(1, 0, false, {1, 2}), K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, (Bytes{1, 2, 3, 4, 5}));
}

TEST(FragmentAssembler, AMegabyteInAnyOrderReassembles) {
    constexpr std::size_t chunk = 4014;
    Bytes whole(FragmentAssembler::K_MAX_MESSAGE_SIZE);
    std::mt19937 random(1);
    std::generate(whole.begin(), whole.end(), [&] { return static_cast<std::uint8_t>(random()); });
    std::size_t const count = (whole.size() + chunk - 1) / chunk;
    EXPECT_EQ(count, 262U);
    std::vector<std::uint16_t> order(count);
    std::iota(order.begin(), order.end(), std::uint16_t{0});
    std::shuffle(order.begin(), order.end(), random);

    FragmentAssembler assembler;
    std::optional<WireFrame> message;
    for (std::uint16_t const index : order) {
        ASSERT_FALSE(message);
        auto const begin = whole.begin() + static_cast<std::ptrdiff_t>(index * chunk);
        auto const end = index + 1U == count ? whole.end() : begin + chunk;
        message = assembler.add(fragment(1, index, index + 1U == count, {begin, end}), K_START);
    }
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, whole);
}

TEST(FragmentAssembler, AMessageOfOneFragmentIsWholeAtOnce) {
    FragmentAssembler assembler;
    auto const message = assembler.add(fragment(1, 0, true, {9}), K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, Bytes{9});
}

TEST(FragmentAssembler, ADuplicateDoesNoHarm) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1, 2}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1, 2}), K_START));
    EXPECT_EQ(assembler.held_size(), 2 + FragmentAssembler::K_CHUNK_OVERHEAD);
    auto const message = assembler.add(fragment(1, 1, true, {3}), K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, (Bytes{1, 2, 3}));
}

TEST(FragmentAssembler, ARepeatedIndexReplacesTheEarlierChunk) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1, 2, 3, 4}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {9}), K_START));
    EXPECT_EQ(assembler.held_size(), 1 + FragmentAssembler::K_CHUNK_OVERHEAD);
    auto const message = assembler.add(fragment(1, 1, true, {3}), K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, (Bytes{9, 3}));
}

TEST(FragmentAssembler, MessagesOfOneSourceAndOfOneIdAreKeptApart) {
    FragmentAssembler assembler;
    WireFrame other_source = fragment(1, 0, false, {30});
    other_source.source = 8;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {10}), K_START));
    EXPECT_FALSE(assembler.add(fragment(2, 0, false, {20}), K_START));
    EXPECT_FALSE(assembler.add(other_source, K_START));
    EXPECT_EQ(assembler.assemblies(), 3U);
    EXPECT_EQ(assembler.add(fragment(2, 1, true, {21}), K_START)->data, (Bytes{20, 21}));
    EXPECT_EQ(assembler.add(fragment(1, 1, true, {11}), K_START)->data, (Bytes{10, 11}));
    WireFrame other_end = fragment(1, 1, true, {31});
    other_end.source = 8;
    auto const message = assembler.add(other_end, K_START);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->data, (Bytes{30, 31}));
    EXPECT_EQ(message->source, 8U);
}

TEST(FragmentAssembler, TheMessageIsToldByTheFragmentThatCameFirst) {
    FragmentAssembler assembler;
    WireFrame first = fragment(0x01020304, 1, true, {2});
    first.source = 0xfffe;
    first.dest = 0xabcd;
    first.ttl = 3;
    first.frag_flags |= K_FRAG_FLAG_COMPRESSED | 0x80;
    first.uncompressed_size = 5000;
    first.origin = proto::bus::Origin(11, 12);
    first.topic_id = 0x0FCE;
    WireFrame second = fragment(0x01020304, 0, false, {1});
    second.source = 0xfffe;
    second.type = proto::bus::MessageType::RESPONSE;

    EXPECT_FALSE(assembler.add(first, K_START));
    WireFrame expected = first;
    expected.frag_index = 0;
    expected.frag_flags = K_FRAG_FLAG_COMPRESSED | 0x80;
    expected.data = {1, 2};
    EXPECT_EQ(assembler.add(second, K_START), expected);
}

TEST(FragmentAssembler, AMissingFragmentIsWaitedFor) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 2, true, {3}), K_START));
    EXPECT_EQ(assembler.add(fragment(1, 1, false, {2}), K_START)->data, (Bytes{1, 2, 3}));
}

TEST(FragmentAssembler, AFragmentBehindTheLastOneKeepsTheMessageFromCompleting) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 5, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 1, true, {1}), K_START));
    EXPECT_EQ(assembler.assemblies(), 1U);
}

TEST(FragmentAssembler, PartsTenSecondsOldAreGoneWhenTheNextArrives) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    auto const late = K_START + FragmentAssembler::K_ASSEMBLY_LIFETIME + 1ns;
    EXPECT_FALSE(assembler.add(fragment(1, 1, true, {2}), late));
    EXPECT_EQ(assembler.assemblies(), 1U);
    EXPECT_EQ(assembler.held_size(), 1 + FragmentAssembler::K_CHUNK_OVERHEAD);
}

TEST(FragmentAssembler, PartsLiveForTenSecondsFromTheFirst) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(1, 1, false, {2}), K_START + 9s));
    EXPECT_TRUE(assembler.add(fragment(1, 2, true, {3}), K_START + 10s));

    EXPECT_FALSE(assembler.add(fragment(2, 0, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(2, 1, false, {2}), K_START + 9s));
    EXPECT_FALSE(assembler.add(fragment(2, 2, true, {3}), K_START + 11s));
}

TEST(FragmentAssembler, AnyFragmentSendsOldAssembliesAway) {
    FragmentAssembler assembler;
    EXPECT_FALSE(assembler.add(fragment(1, 0, false, {1}), K_START));
    EXPECT_FALSE(assembler.add(fragment(2, 0, false, {1}), K_START + 5s));
    EXPECT_TRUE(assembler.add(fragment(3, 0, true, {1}), K_START + 12s));
    EXPECT_EQ(assembler.assemblies(), 1U);
    EXPECT_TRUE(assembler.add(fragment(2, 1, true, {1}), K_START + 12s));
}

TEST(FragmentKey, HasTheSourceAboveTheMessageId) {
    EXPECT_EQ(fragment_key(0x01020304, 0xfffefdfc), 0x01020304fffefdfcU);
}

} // namespace
} // namespace tessaron::bus
