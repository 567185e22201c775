// What a transport that keeps boundaries hands over: whole frames, which are not copied.

#include "proto/RxContainer.hpp"

#include "tests/unit/proto/BusReceiver.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace proto::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

FrameModel frame_with(Bytes data) {
    FrameModel frame;
    frame.type = 0x30;
    frame.data = std::move(data);
    return frame;
}

TEST(RxContainer, WholeFramesAreReceivedWhereTheyStand) {
    FrameModel const first = frame_with(Bytes(4000, 7));
    FrameModel const second = frame_with({4});
    Bytes chunk{0xB0, 0x55, 0x00};
    append(chunk, first.bytes());
    append(chunk, second.bytes());
    BusReceiver receiver;
    auto const callback = receiver.rx().add_receive_callback([](BusRx& rx) {
        rx.for_each_type([&rx](auto const& field) {
            EXPECT_EQ(field.buffer().data(), rx.get<ID_FIELD>().buffer().data());
        });
    });
    receiver.feed_whole(chunk);
    FrameModel third;
    third.type = 0x20;
    receiver.feed_whole(third.bytes());
    EXPECT_THAT(receiver.frames(), ElementsAre(first, second, third));
    EXPECT_TRUE(receiver.is_intact());
}

TEST(RxContainer, WhatAWholeChunkLeavesUnfinishedIsGivenUp) {
    FrameModel const frame = frame_with({1, 2, 3});
    Bytes const bytes = frame.bytes();
    for (std::size_t size = 1; size < bytes.size(); ++size) {
        auto const cut = bytes.begin() + static_cast<std::ptrdiff_t>(size);
        BusReceiver receiver;
        receiver.feed(Bytes(bytes.begin(), cut)); // of a stream, before
        receiver.feed_whole(Bytes(bytes.begin(), cut));
        receiver.feed_whole(Bytes(cut, bytes.end()));
        EXPECT_THAT(receiver.frames(), IsEmpty()) << size;
        receiver.feed_whole(bytes);
        receiver.feed(bytes); // in its own buffer again
        EXPECT_THAT(receiver.frames(), ElementsAre(frame, frame)) << size;
        EXPECT_TRUE(receiver.is_intact());
    }
}

TEST(RxContainer, AWholeChunkMayBeLargerThanTheBufferButNoFrame) {
    FrameModel const frame = frame_with(Bytes(4000, 1));
    Bytes chunk;
    for (int i = 0; i < 15; ++i) {
        append(chunk, frame.bytes());
    }
    append(chunk, frame_with(Bytes(bus::MAX_PAYLOAD_SIZE, 1)).bytes());
    append(chunk, frame.bytes());
    BusReceiver receiver;
    receiver.feed_whole(chunk);
    EXPECT_THAT(receiver.frames(), testing::AllOf(testing::SizeIs(16), testing::Each(frame)));
}

} // namespace

} // namespace proto::test
