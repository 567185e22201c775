#include "proto/RxContainer.hpp"

#include "tests/unit/proto/BusReceiver.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace proto::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Bytes const K_EXAMPLE{0xB0, 0x55, 0xB0, 0x55, 0x02, 0x20, 0x00, 0x00, 0x02, 0x01,
                      0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x00, 0x23, 0xB1};

FrameModel frame_with(Bytes data, unsigned type = 0x30) {
    FrameModel frame;
    frame.type = type;
    frame.data = std::move(data);
    return frame;
}

TEST(RxContainer, ReadsTheWorkedExample) {
    BusReceiver receiver;
    receiver.feed(K_EXAMPLE);
    FrameModel expected;
    expected.type = 0x20;
    EXPECT_THAT(receiver.frames(), ElementsAre(expected));
    EXPECT_TRUE(std::holds_alternative<EmptyDataType>(
        meta::get_named<DATA_FIELD>(receiver.copies().at(0))));
}

TEST(RxContainer, TwoFramesAndAHalfInAChunkAreTwoFramesAndAHalf) {
    FrameModel const first = frame_with({1, 2, 3});
    FrameModel const second = frame_with({4});
    FrameModel const third = frame_with({5, 6});
    Bytes stream = first.bytes();
    append(stream, second.bytes());
    std::size_t const half = stream.size() + 9;
    append(stream, third.bytes());

    BusReceiver receiver;
    receiver.feed(Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(half)));
    EXPECT_THAT(receiver.frames(), ElementsAre(first, second));
    EXPECT_EQ(receiver.rx().index(), 4U) << "in the middle of the source";
    receiver.feed(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(half), stream.end()));
    EXPECT_THAT(receiver.frames(), ElementsAre(first, second, third));
    EXPECT_EQ(receiver.rx().index(), 0U);
}

TEST(RxContainer, AFrameByteByByteIsTheSameFrame) {
    FrameModel frame = frame_with({9, 8, 7}, 0x41);
    frame.options = {0x12, 0, 1, 0, 0, 0, 6, 5, 4, 3, 2, 1};
    BusReceiver receiver;
    receiver.feed_in_pieces(frame.bytes(), 1);
    EXPECT_THAT(receiver.frames(), ElementsAre(frame));
}

TEST(RxContainer, AByteThatBreaksAPrefixMayBeginTheNext) {
    FrameModel const frame = frame_with({1});
    Bytes stream{0xB0, 0x55, 0xB0};
    append(stream, frame.bytes());
    for (std::size_t size = 1; size <= stream.size(); ++size) {
        BusReceiver receiver;
        receiver.feed_in_pieces(stream, size);
        EXPECT_THAT(receiver.frames(), ElementsAre(frame)) << "in pieces of " << size;
    }
}

TEST(RxContainer, TheBytesOfABadCrcAreSearchedForAPrefixAgain) {
    Bytes stream = frame_with({1, 2, 3}).bytes();
    FrameModel const next = frame_with({4});
    stream.resize(stream.size() - 2); // What stands where the CRC was is the next frame.
    append(stream, next.bytes());
    BusReceiver receiver;
    receiver.feed(stream);
    EXPECT_THAT(receiver.frames(), ElementsAre(next));
}

TEST(RxContainer, TheDataOfAFrameWithABadCrcIsNotSearched) {
    Bytes stream = frame_with(frame_with({1}).bytes()).bytes();
    stream.back() ^= 1;
    FrameModel const next = frame_with({2});
    append(stream, next.bytes());
    BusReceiver receiver;
    receiver.feed(stream);
    EXPECT_THAT(receiver.frames(), ElementsAre(next));
}

TEST(RxContainer, APacketWithoutPayloadHasNoneWhateverItsLengthSays) {
    FrameModel frame = frame_with({1, 2, 3, 4, 5}, 0x20);
    FrameModel const next = frame_with({});
    Bytes stream = frame.bytes();
    append(stream, next.bytes());
    BusReceiver receiver;
    receiver.feed(stream);
    EXPECT_THAT(receiver.frames(), ElementsAre(next))
        << "the first two bytes were taken as its CRC";
}

TEST(RxContainer, AFrameWithAnEmptyPayloadHasData) {
    FrameModel const frame = frame_with({});
    BusReceiver receiver;
    receiver.feed(frame.bytes());
    ASSERT_EQ(receiver.copies().size(), 1U);
    auto const& data = meta::get_named<DATA_FIELD>(receiver.copies()[0]);
    ASSERT_TRUE(std::holds_alternative<Bytes>(data));
    EXPECT_THAT(std::get<Bytes>(data), IsEmpty());
}

TEST(RxContainer, TheNodesOwnFramesAreDropped) {
    FrameModel own = frame_with({1});
    own.source = BusReceiver::K_OWN_ADDRESS;
    FrameModel const other = frame_with({2});
    BusReceiver receiver;
    receiver.feed(own.bytes());
    receiver.feed(other.bytes());
    EXPECT_THAT(receiver.frames(), ElementsAre(other));
}

TEST(RxContainer, OnlyTheLow16BitsOfTheOwnAddressCount) {
    FrameModel nobody = frame_with({1});
    nobody.source = 0xFFFF;
    BusReceiver receiver;
    receiver.rx().set_source_match_value(0xFFFFFFFF);
    receiver.feed(nobody.bytes());
    EXPECT_THAT(receiver.frames(), IsEmpty());
    receiver.rx().set_source_match_value(0x0001FFFE);
    receiver.feed(nobody.bytes());
    EXPECT_THAT(receiver.frames(), ElementsAre(nobody));
}

TEST(RxContainer, FramesOutsideTheAcceptedChannelsAreDropped) {
    BusReceiver receiver;
    receiver.rx().set_channel_accept_range(5, 7);
    std::vector<FrameModel> accepted;
    for (unsigned const channel : {4U, 5U, 6U, 7U, 8U, 0xFFFFU}) {
        FrameModel frame = frame_with({1});
        frame.channel = channel;
        receiver.feed(frame.bytes());
        if (channel >= 5 && channel <= 7) {
            accepted.push_back(frame);
        }
    }
    EXPECT_EQ(receiver.frames(), accepted);
}

TEST(RxContainer, AFrameOfAnotherTypeFailsAtItsType) {
    FrameModel const good = frame_with({1});
    Bytes stream = frame_with({1}, 0x31).bytes();
    append(stream, good.bytes());
    BusReceiver receiver;
    receiver.feed(stream);
    EXPECT_THAT(receiver.frames(), ElementsAre(good));
}

TEST(RxContainer, AnyVersionIsReceived) {
    FrameModel frame = frame_with({1});
    frame.version = 77;
    BusReceiver receiver;
    receiver.feed(frame.bytes());
    EXPECT_THAT(receiver.frames(), ElementsAre(frame));
}

TEST(RxContainer, MaskBitsAboveTheLastSlotAddNoBytes) {
    FrameModel frame = frame_with({1, 2});
    frame.options = {0x21, 0xFF, 0xCE, 0x0F, 3};
    for (std::size_t const size : {1UL, 3UL, 100UL}) {
        BusReceiver receiver;
        receiver.feed_in_pieces(frame.bytes(), size);
        EXPECT_THAT(receiver.frames(), ElementsAre(frame));
    }
}

TEST(RxContainer, TheLargestFrameThatTheBufferHoldsIsReceived) {
    FrameModel frame = frame_with(Bytes(4096 - 20, 0x5A));
    ASSERT_EQ(frame.bytes().size(), bus::MAX_PAYLOAD_SIZE);
    BusReceiver receiver;
    receiver.feed(frame.bytes());
    EXPECT_THAT(receiver.frames(), ElementsAre(frame));
}

TEST(RxContainer, ALengthBeyondTheBufferBreaksTheFrameAtTheLength) {
    FrameModel const next = frame_with({1});
    for (unsigned const length : {12U + 4077U, 12U + 4096U, 0x7FFFU, 0xFFFFU}) {
        Bytes stream = frame_with({}).bytes_with_length(length);
        append(stream, next.bytes());
        BusReceiver receiver;
        receiver.feed(stream);
        EXPECT_THAT(receiver.frames(), ElementsAre(next)) << "after a length of " << length;
    }
}

TEST(RxContainer, ALengthThatWrapsBelowZeroBreaksTheFrameAtTheLength) {
    FrameModel const next = frame_with({1});
    for (unsigned const length : {0U, 1U, 11U}) {
        Bytes stream = frame_with({}).bytes_with_length(length);
        append(stream, next.bytes());
        BusReceiver receiver;
        receiver.feed(stream);
        EXPECT_THAT(receiver.frames(), ElementsAre(next)) << "after a length of " << length;
    }
}

TEST(RxContainer, NothingIsWrittenBehindASmallBuffer) {
    std::vector<unsigned char> memory(64, 0xEE);
    RxContainer<bus::BusFrame, BitwiseCrc> rx(
        {tessaron::CustomSpan<unsigned char>(memory.data(), 15)}); // Not even the options fit.
    FrameModel frame = frame_with(Bytes(40, 0xAB));
    frame.options = {0x7F, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                     10,   11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    Bytes bytes = frame.bytes();
    unsigned long used = 0;
    rx.fill(span_of(bytes), used);
    EXPECT_EQ(used, bytes.size());
    EXPECT_EQ(Bytes(memory.begin() + 15, memory.end()), Bytes(49, 0xEE));
}

TEST(RxContainer, CallbacksRunFromTheLastAddedToTheFirstWhileTheyLast) {
    BusReceiver receiver;
    std::string order;
    auto const first = receiver.rx().add_receive_callback([&](BusRx&) { order += 'a'; });
    auto second = receiver.rx().add_receive_callback([&](BusRx&) { order += 'b'; });
    auto const third = receiver.rx().add_receive_callback([&](BusRx&) { order += 'c'; });
    receiver.feed(K_EXAMPLE);
    EXPECT_EQ(order, "cba");
    second.reset();
    receiver.feed(K_EXAMPLE);
    EXPECT_EQ(order, "cbaca");
}

TEST(RxContainer, TwoOfOneTypeShareNothing) {
    FrameModel const a = frame_with({1, 2, 3});
    FrameModel const b = frame_with({4, 5, 6});
    BusReceiver one;
    BusReceiver two;
    Bytes const a_bytes = a.bytes();
    Bytes const b_bytes = b.bytes();
    for (std::size_t i = 0; i < a_bytes.size(); ++i) {
        one.feed({a_bytes[i]});
        two.feed({b_bytes[i]});
    }
    EXPECT_THAT(one.frames(), ElementsAre(a));
    EXPECT_THAT(two.frames(), ElementsAre(b));
}

/// Frames good and broken, and noise, in chunks of all sizes.
class RandomStream {
public:
    explicit RandomStream(unsigned seed) : random_(seed) {
        for (unsigned i = 0, pieces = 1 + below(8); i < pieces; ++i) {
            append(stream, piece());
        }
        for (std::size_t end = 0; end < stream.size();) {
            end = std::min<std::size_t>(end + 1 + below(below(4) == 0 ? 3 : 60), stream.size());
            ends.push_back(end);
        }
    }

    Bytes stream;
    ChunkEnds ends;

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

    Bytes noise(unsigned size) {
        constexpr unsigned char K_LIKELY[] = {0xB0, 0x55, 0xB0, 0x55, 2, 0x30, 0, 0, 1};
        Bytes bytes;
        for (unsigned i = 0; i < size; ++i) {
            bytes.push_back(K_LIKELY[below(sizeof K_LIKELY)]);
        }
        return bytes;
    }

    Bytes piece() {
        constexpr unsigned K_TYPES[] = {0x10, 0x11, 0x12, 0x20, 0x21, 0x30, 0x40, 0x41, 0x99};
        if (below(4) == 0) {
            return noise(below(30));
        }
        FrameModel frame;
        frame.type = K_TYPES[below(9)];
        frame.data = frame.type == 0x20 ? Bytes() : noise(below(40));
        frame.options = {1, 0, 7, 7};
        Bytes bytes = frame.bytes();
        if (below(3) == 0) {
            bytes[below(static_cast<unsigned>(bytes.size()))] ^=
                static_cast<unsigned char>(1 << below(8));
        }
        if (below(6) == 0) {
            bytes.resize(below(static_cast<unsigned>(bytes.size())));
        }
        return bytes;
    }

    std::mt19937 random_;
};

TEST(RxContainer, FindsInAnyStreamWhatItsOffsetsTell) {
    std::size_t found = 0;
    for (unsigned seed = 0; seed < 3000; ++seed) {
        RandomStream const random(seed);
        BusReceiver receiver;
        receiver.feed_in_chunks(random.stream, random.ends);
        auto const expected =
            ModelParser(random.stream, random.ends, BusReceiver::K_OWN_ADDRESS).parse();
        ASSERT_EQ(receiver.frames(), expected) << "seed " << seed;
        found += expected.size();
    }
    EXPECT_GT(found, 3000U);
}

} // namespace

} // namespace proto::test
