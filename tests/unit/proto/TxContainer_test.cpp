#include "proto/TxContainer.hpp"

#include "tests/unit/proto/BusReceiver.hpp"
#include "tests/unit/proto/RecordingInterface.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace proto::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

bus::Options topic(std::uint16_t id) {
    bus::Options options;
    std::get<bus::OPTION_TOPIC_ID>(options) = id;
    return options;
}

class TxContainerTest : public testing::Test {
protected:
    TxContainerTest() {
        tx_.set_interface(wire_);
        tx_.set_source_match_value(0x00990102);
    }

    unsigned long send(unsigned char type, bus::Options const& options, Bytes const& data) {
        return tx_.send_packet(
            make_field_info<TYPE_FIELD, unsigned char>(&type),
            make_field_info<VERSION_FIELD, unsigned char>(&version_),
            make_field_info<DEST_FIELD, unsigned>(&dest_),
            make_field_info<OPT_FIELD, bus::Options>(&options),
            make_field_info<DATA_FIELD, unsigned char*>(data.data(), data.size()));
    }

    unsigned char version_ = 2;
    unsigned dest_ = 0xFFFFFFFF;
    RecordingInterface wire_;
    Bytes buffer_ = Bytes(bus::MAX_PAYLOAD_SIZE, 0xEE);
    BusTx tx_{{tessaron::CustomSpan<unsigned char>(buffer_.data(), buffer_.size())}};
};

TEST_F(TxContainerTest, WritesTheWorkedExample) {
    unsigned char const type = 0x20;
    bus::Options const options;
    EmptyDataType const nothing;
    unsigned long const size =
        tx_.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                        make_field_info<VERSION_FIELD, unsigned char>(&version_),
                        make_field_info<DEST_FIELD, unsigned>(&dest_),
                        make_field_info<OPT_FIELD, bus::Options>(&options),
                        make_field_info<DATA_FIELD, EmptyDataType>(&nothing));
    Bytes const expected{0xB0, 0x55, 0xB0, 0x55, 0x02, 0x20, 0x00, 0x00, 0x02, 0x01,
                         0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x00, 0x23, 0xB1};
    EXPECT_EQ(size, 20U);
    EXPECT_THAT(wire_.frames, ElementsAre(expected));
}

TEST_F(TxContainerTest, WritesWhatTheOffsetsTell) {
    tx_.set_channel_stamp_value(0x0708);
    dest_ = 0x01020304;
    send(0x40,
         {0x0FCE, 0x11223344, 5, std::uint8_t{6}, bus::Origin(0xA1A2A3A4, 0xB1B2), 7, 0x00100000},
         {1, 2, 3});
    FrameModel expected;
    expected.type = 0x40;
    expected.channel = 0x0708;
    expected.dest = 0x01020304;
    expected.options = {0x7F, 0x00, 0xCE, 0x0F, 0x44, 0x33, 0x22, 0x11, 5,    0,    6,
                        0xA4, 0xA3, 0xA2, 0xA1, 0xB2, 0xB1, 7,    0x00, 0x00, 0x10, 0x00};
    expected.data = {1, 2, 3};
    EXPECT_THAT(wire_.frames, ElementsAre(expected.bytes()));
}

TEST_F(TxContainerTest, AFrameIsOneWriteBetweenBeginAndEnd) {
    send(0x30, topic(1), {1, 2, 3});
    EXPECT_EQ(wire_.writes, 1);
    EXPECT_EQ(wire_.writes_outside_of_frames, 0);
    EXPECT_EQ(wire_.last_timeout, std::chrono::milliseconds(1));
}

TEST_F(TxContainerTest, WhatTheTransportSaysIsNotLookedAt) {
    wire_.accepts = false;
    EXPECT_EQ(send(0x30, {}, {1, 2, 3}), 23U);
    EXPECT_EQ(wire_.frames.size(), 1U);
}

TEST_F(TxContainerTest, WithoutAnInterfaceAFrameIsBuiltAllTheSame) {
    Bytes memory(64);
    BusTx tx({tessaron::CustomSpan<unsigned char>(memory.data(), memory.size())});
    unsigned char const type = 0x10;
    EXPECT_EQ(tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type)), 20U);
}

TEST_F(TxContainerTest, WhatNobodyGivesIsZeroWhateverTheBufferHeld) {
    unsigned char const type = 0x30;
    tx_.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type));
    FrameModel expected;
    expected.version = 0;
    expected.dest = 0;
    EXPECT_THAT(wire_.frames, ElementsAre(expected.bytes()));
}

TEST_F(TxContainerTest, OneFrameLeavesNoTraceInTheNext) {
    send(0x30, topic(1), Bytes(500, 0x55));
    send(0x20, {}, {});
    send(0x30, {}, {7});
    FrameModel without_data;
    without_data.type = 0x20;
    FrameModel small;
    small.data = {7};
    ASSERT_EQ(wire_.frames.size(), 3U);
    EXPECT_EQ(wire_.frames[1], without_data.bytes());
    EXPECT_EQ(wire_.frames[2], small.bytes());
}

TEST_F(TxContainerTest, APacketWithoutPayloadCarriesNoneEvenIfGiven) {
    EXPECT_EQ(send(0x20, {}, {1, 2, 3}), 20U);
    FrameModel expected;
    expected.type = 0x20;
    EXPECT_THAT(wire_.frames, ElementsAre(expected.bytes()));
}

TEST_F(TxContainerTest, TheLargestFrameFillsTheBuffer) {
    EXPECT_EQ(send(0x30, {}, Bytes(4076, 1)), 4096U);
    EXPECT_EQ(send(0x30, {}, Bytes(4077, 1)), 0U);
    EXPECT_EQ(send(0x30, topic(1), Bytes(4076, 1)), 0U);
    EXPECT_EQ(wire_.frames.size(), 1U);
}

TEST_F(TxContainerTest, APayloadBeyondTheFieldIsNotSent) {
    EXPECT_EQ(send(0x30, {}, Bytes(4097, 1)), 0U);
    EXPECT_THAT(wire_.frames, IsEmpty());
}

TEST_F(TxContainerTest, ATypeWithoutARowIsNotSent) {
    EXPECT_EQ(send(0x31, {}, {1}), 0U);
    EXPECT_THAT(wire_.frames, IsEmpty());
}

TEST_F(TxContainerTest, NothingIsWrittenBehindASmallBuffer) {
    Bytes memory(64, 0xEE);
    for (std::size_t size = 0; size < 23; ++size) {
        BusTx tx({tessaron::CustomSpan<unsigned char>(memory.data(), size)});
        unsigned char const type = 0x30;
        Bytes const data{1, 2, 3};
        EXPECT_EQ(tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                                 make_field_info<DATA_FIELD, unsigned char*>(data.data(), 3)),
                  0U);
        EXPECT_EQ(Bytes(memory.begin() + static_cast<std::ptrdiff_t>(size), memory.end()),
                  Bytes(64 - size, 0xEE));
    }
}

TEST_F(TxContainerTest, ASharedCrcComputesTheSame) {
    BitwiseCrc const crc;
    Bytes memory(64);
    TxContainer<bus::BusFrame, SharedCrc> tx(
        {tessaron::CustomSpan<unsigned char>(memory.data(), memory.size())}, crc);
    tx.set_interface(wire_);
    tx.set_source_match_value(0x0102);
    unsigned char const type = 0x30;
    tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                   make_field_info<VERSION_FIELD, unsigned char>(&version_),
                   make_field_info<DEST_FIELD, unsigned>(&dest_));
    EXPECT_THAT(wire_.frames, ElementsAre(FrameModel{}.bytes()));
}

TEST_F(TxContainerTest, WhatIsSentIsReceived) {
    bus::Options const options{0x0FCE, std::nullopt, std::nullopt, std::nullopt, bus::Origin(9, 8),
                               3,      std::nullopt};
    send(0x41, options, {5, 6});
    BusReceiver receiver;
    receiver.feed(wire_.frames.at(0));
    ASSERT_EQ(receiver.copies().size(), 1U);
    auto const& named = receiver.copies()[0];
    EXPECT_EQ(meta::get_named<VERSION_FIELD>(named), 2);
    EXPECT_EQ(meta::get_named<SOURCE_FIELD>(named), 0x0102);
    auto const* const stored = meta::get_named<OPT_FIELD>(named).data();
    EXPECT_EQ(bus::OptionsField::get_field_from<bus::OPTION_TOPIC_ID>(stored), 0x0FCE);
    EXPECT_EQ(bus::OptionsField::get_field_from<bus::OPTION_MSG_ID>(stored), std::nullopt);
    EXPECT_EQ(bus::OptionsField::get_field_from<bus::OPTION_ORIGIN>(stored), bus::Origin(9, 8));
    EXPECT_EQ(bus::OptionsField::get_field_from<bus::OPTION_TTL>(stored), 3);
    EXPECT_EQ(std::get<Bytes>(meta::get_named<DATA_FIELD>(named)), (Bytes{5, 6}));
}

} // namespace

} // namespace proto::test
