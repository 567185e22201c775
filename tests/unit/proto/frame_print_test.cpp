#include "proto/frame_print.hpp"

#include "tests/support/CapturedStream.hpp"
#include "tests/unit/proto/BusReceiver.hpp"
#include "tests/unit/proto/RecordingInterface.hpp"

#include <gtest/gtest.h>
#include <iostream>
#include <string>

namespace proto::test {

namespace {

using tessaron::test::CapturedStream;

// A frame of type 0x30 with the payload 01 02, as dumped by who receives it.
std::string const K_TABLE =
    "| FieldName       | Value (Hex)              | Size   | Offset | Is in len  | Is in crc  |\n"
    "| ID_FIELD        | B0 55 B0 55              | 4      | 0      | FALSE      | FALSE      |\n"
    "| ConstValue      | B0 55 B0 55              |        |        |            |            |\n"
    "| VERSION_FIELD   | 02                       | 1      | 4      | TRUE       | TRUE       |\n"
    "| TYPE_FIELD      | 30                       | 1      | 5      | TRUE       | TRUE       |\n"
    "| CHANNEL_FIELD   | 00 00                    | 2      | 6      | TRUE       | TRUE       |\n"
    "| SOURCE_FIELD    | 02 01                    | 2      | 8      | TRUE       | TRUE       |\n"
    "| UNKNOWN         | 00 00                    | 2      | 10     | TRUE       | TRUE       |\n"
    "| DEST_FIELD      | FF FF FF FF              | 4      | 12     | TRUE       | TRUE       |\n"
    "| LEN_FIELD       | 0E 00                    | 2      | 16     | FALSE      | TRUE       |\n"
    "| DATA_FIELD      | 0A 0B                    | 2      | 18     | TRUE       | TRUE       |\n";

FrameModel example() {
    FrameModel frame;
    frame.data = {0x0A, 0x0B};
    return frame;
}

std::string crc_row(unsigned char first, unsigned char second) {
    constexpr char K_DIGITS[] = "0123456789ABCDEF";
    std::string row = "| CRC_FIELD       | .. ..                    | 2      | 20     | FALSE      "
                      "| FALSE      |\n";
    row.replace(20, 2, {K_DIGITS[first >> 4], K_DIGITS[first & 15]});
    row.replace(23, 2, {K_DIGITS[second >> 4], K_DIGITS[second & 15]});
    return row;
}

TEST(FramePrint, ASentFrameIsATable) {
    Bytes memory(64);
    BusTx tx({span_of(memory)});
    tx.set_debug(true);
    tx.set_debug_flags(DebugPrintFlags::Sent);
    tx.set_source_match_value(0x0102);
    unsigned char const type = 0x30;
    unsigned char const version = 2;
    unsigned const dest = 0xFFFFFFFF;
    Bytes const data = example().data;
    CapturedStream const out(std::cout);
    tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                   make_field_info<VERSION_FIELD, unsigned char>(&version),
                   make_field_info<DEST_FIELD, unsigned>(&dest),
                   make_field_info<DATA_FIELD, unsigned char*>(data.data(), data.size()));
    Bytes const frame = example().bytes();
    EXPECT_EQ(out.text(), K_TABLE + crc_row(frame[20], frame[21]));
}

TEST(FramePrint, AReceivedFrameIsATableBehindALine) {
    Bytes memory(4096);
    RecordingInterface wire;
    CapturedStream const out(std::cout);
    {
        Bytes unused(64);
        BusEndpoint endpoint(true, {span_of(memory)}, {span_of(unused)});
        endpoint.set_debug_flags(DebugPrintFlags::Received);
        endpoint.set_interfaces(wire, wire);
        wire.deliver(example().bytes());
    }
    Bytes const frame = example().bytes();
    EXPECT_EQ(out.text(), " \n\n Packet is received!!\n" + K_TABLE + crc_row(frame[21], frame[20]));
}

class BrokenFrame : public testing::Test {
protected:
    std::string printed_for(Bytes const& bytes) {
        CapturedStream const out(std::cout);
        receiver_.feed(bytes);
        return out.text();
    }

    static std::string between_lines(std::string const& fields) {
        return "-------------BROKEN PACKET START-------------\n" + fields +
               "-------------BROKEN PACKET STOP-------------\n";
    }

    BusReceiver receiver_;
};

std::string const K_HEAD = "Field ID_FIELD received:  0xB0 0x55 0xB0 0x55\n"
                           "Field VERSION_FIELD received:  0x02\n";

TEST_F(BrokenFrame, NothingIsSaidWithoutDebug) {
    FrameModel frame;
    frame.type = 0x99;
    EXPECT_EQ(printed_for(frame.bytes()), "");
    receiver_.rx().set_debug(true);
    receiver_.rx().set_debug_flags(DebugPrintFlags::Sent | DebugPrintFlags::Received);
    EXPECT_EQ(printed_for(frame.bytes()), "");
}

TEST_F(BrokenFrame, AnUnknownTypeIsNamed) {
    receiver_.rx().set_debug(true);
    FrameModel frame;
    frame.type = 0x99;
    EXPECT_EQ(printed_for(frame.bytes()),
              "\n---------------------------\n"
              "Incorrect type received (method CheckType):\n"
              "  Received type id: 153\n" +
                  between_lines(K_HEAD + "Field TYPE_FIELD received:  0x99\n"));
}

TEST_F(BrokenFrame, ABadCrcIsComparedWithTheGoodOne) {
    receiver_.rx().set_debug(true);
    Bytes bytes{0xB0, 0x55, 0xB0, 0x55, 0x02, 0x20, 0x00, 0x00, 0x02, 0x01,
                0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x00, 0x23, 0xB2};
    EXPECT_EQ(printed_for(bytes),
              "\nMismatch in CRC field:\n"
              "  Expected: 000023b1\n"
              "  Received: 000023b2\n" +
                  between_lines(K_HEAD + "Field TYPE_FIELD received:  0x20\n"
                                         "Field CHANNEL_FIELD received:  0x00 0x00\n"
                                         "Field SOURCE_FIELD received:  0x02 0x01\n"
                                         "Field UNKNOWN received:  0x00 0x00\n"
                                         "Field DEST_FIELD received:  0xFF 0xFF 0xFF "
                                         "0xFF\n"
                                         "Field LEN_FIELD received:  0x0C 0x00\n"
                                         "Field DATA_FIELD received: \n"
                                         "Field CRC_FIELD received:  0xB2 0x23\n"));
}

TEST_F(BrokenFrame, OfForeignChannelsAndOwnFramesOnlyTheFieldsArePrinted) {
    receiver_.rx().set_debug(true);
    FrameModel foreign;
    foreign.channel = 0x0109;
    EXPECT_EQ(printed_for(foreign.bytes()),
              between_lines(K_HEAD + "Field TYPE_FIELD received:  0x30\n"
                                     "Field CHANNEL_FIELD received:  0x09 0x01\n"));
    FrameModel own;
    own.source = BusReceiver::K_OWN_ADDRESS;
    EXPECT_EQ(printed_for(own.bytes()),
              between_lines(K_HEAD + "Field TYPE_FIELD received:  0x30\n"
                                     "Field CHANNEL_FIELD received:  0x00 0x00\n"
                                     "Field SOURCE_FIELD received:  0x0B 0x0A\n"));
}

TEST_F(BrokenFrame, NoiseBeforeAPrefixIsNotWorthAWord) {
    receiver_.rx().set_debug(true);
    EXPECT_EQ(printed_for({1, 2, 0xB0, 3, 0xB0, 0x55, 4}), "");
}

} // namespace

} // namespace proto::test
