// What the bus frame has no use for: other checks, other orders of the fields, several buffers.

#include "proto/DataFieldPrototype.hpp"
#include "proto/FieldPrototype.hpp"
#include "proto/RxContainer.hpp"
#include "proto/TxContainer.hpp"
#include "tests/support/CapturedStream.hpp"
#include "tests/unit/proto/RecordingInterface.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <string>

namespace proto::test {

/// A check that a declaration brings along; see `SizedFrame`.
MatchStatus expect_four_bytes(void* container);

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned char K_START[] = {0xF0, 0x0F};
constexpr FieldFlags K_IN_LEN = FieldFlags::InLen;
constexpr FieldFlags K_NONE = FieldFlags::None;

template <unsigned BUFFER = 0>
using Start = FieldPrototype<ID_FIELD, unsigned char const*, BUFFER, K_NONE, 2, 2, K_START>;
using Type = FieldPrototype<TYPE_FIELD, unsigned char, 0, K_IN_LEN>;
using Length = FieldPrototype<LEN_FIELD, unsigned short, 0, K_NONE>;
template <unsigned BUFFER = 0>
using Data =
    DataFieldPrototype<std::tuple<PacketInfo<1, unsigned char*>, PacketInfo<2, EmptyDataType>>,
                       BUFFER, K_IN_LEN, 32>;
using Status = FieldPrototype<STATUS_FIELD, unsigned char, 0, K_NONE>;

/// Keeps the frames of any type.
template <typename Frame>
class Receiver {
public:
    using Rx = RxContainer<Frame, BitwiseCrc>;

    explicit Receiver(std::size_t buffer_size = 64) {
        for (std::size_t i = 0; i < K_BUFFER_COUNT<Frame>; ++i) {
            memory_[i].resize(buffer_size);
            buffers_[i] = span_of(memory_[i]);
        }
        rx_ = std::make_unique<Rx>(buffers_);
        callback_ =
            rx_->add_receive_callback([this](Rx& rx) { frames.push_back(rx.get_named_copies()); });
    }

    void feed(Bytes chunk) {
        unsigned long used = 0;
        rx_->fill(span_of(chunk), used);
    }
    void feed_whole(Bytes chunk) {
        unsigned long used = 0;
        rx_->fill_with_whole(span_of(chunk), used);
    }
    void feed_text(std::string const& text) { feed(Bytes(text.begin(), text.end())); }
    void feed_byte_by_byte(std::string const& text) {
        for (char const byte : text) {
            feed_text(std::string(1, byte));
        }
    }

    /// What is printed on the way.
    std::string feed_with_debug(Bytes const& chunk) {
        rx_->set_debug(true);
        tessaron::test::CapturedStream const out(std::cout);
        feed(chunk);
        return out.text();
    }

    /// All values of a field, in the order of the frames.
    template <FieldName NAME>
    auto all() {
        std::vector<std::remove_reference_t<decltype(meta::get_named<NAME>(frames[0]))>> values;
        for (auto& frame : frames) {
            values.push_back(meta::get_named<NAME>(frame));
        }
        return values;
    }

    std::vector<typename Rx::NamedCopies> frames;

private:
    Bytes memory_[K_BUFFER_COUNT<Frame>];
    FrameBuffers<Frame> buffers_;
    std::unique_ptr<Rx> rx_;
    std::shared_ptr<typename Rx::FrameCallback> callback_;
};

using AlenFrame =
    std::tuple<Start<>, Type, Length, FieldPrototype<ALEN_FIELD, unsigned char, 0, K_NONE>, Data<>>;

TEST(AlenField, HoldsTheComplementOfTheLengthsLowByte) {
    Receiver<AlenFrame> receiver;
    receiver.feed({0xF0, 0x0F, 1, 3, 0, 0xFC, 7, 8});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{7, 8})));
}

TEST(AlenField, AnythingElseBreaksTheFrameAndIsSaid) {
    Receiver<AlenFrame> receiver;
    EXPECT_EQ(receiver.feed_with_debug({0xF0, 0x0F, 1, 3, 0, 0xFD, 7, 8}),
              "\nMismatch in ALEN field:\n"
              "-------------BROKEN PACKET START-------------\n"
              "Field ID_FIELD received:  0xF0 0x0F\n"
              "Field TYPE_FIELD received:  0x01\n"
              "Field LEN_FIELD received:  0x03 0x00\n"
              "Field ALEN_FIELD received:  0xFD\n"
              "-------------BROKEN PACKET STOP-------------\n");
    EXPECT_THAT(receiver.frames, IsEmpty());
}

TEST(AlenField, IsTheSendersToGive) {
    Bytes memory(64);
    TxContainer<AlenFrame, BitwiseCrc> tx({span_of(memory)});
    RecordingInterface wire;
    tx.set_interface(wire);
    unsigned char const type = 1;
    unsigned char const alen = 0xFC;
    Bytes const data{7, 8};
    tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                   make_field_info<ALEN_FIELD, unsigned char>(&alen),
                   make_field_info<DATA_FIELD, unsigned char*>(data.data(), data.size()));
    EXPECT_THAT(wire.frames, ElementsAre(Bytes{0xF0, 0x0F, 1, 3, 0, 0xFC, 7, 8}));
}

/// Its bytes end where its value does; what follows tells whether the parser has found the end.
using JsonFrame =
    std::tuple<Start<>, FieldPrototype<JSON_FIELD, unsigned char*, 0, K_NONE, 24>, Status>;

std::string json_frame(std::string const& json) {
    return "\xF0\x0F" + json + "#";
}

Bytes bytes_of(std::string const& text) {
    return {text.begin(), text.end()};
}

TEST(JsonField, EndsWithItsValueHoweverTheStreamIsCut) {
    for (std::string const& json : std::vector<std::string>{
             R"({})", R"([])", R"({"a":[1,{"b":2}]})", R"({"}":"]"})", R"({"q":"\"}\\"})"}) {
        Receiver<JsonFrame> whole;
        whole.feed_text(json_frame(json) + json_frame("[1]"));
        EXPECT_THAT(whole.all<JSON_FIELD>(), ElementsAre(bytes_of(json), bytes_of("[1]")));
        EXPECT_THAT(whole.all<STATUS_FIELD>(), ElementsAre('#', '#'));
        Receiver<JsonFrame> cut;
        cut.feed_byte_by_byte(json_frame(json) + json_frame("[1]"));
        EXPECT_EQ(cut.frames.size(), 2U) << json;
        EXPECT_EQ(cut.all<JSON_FIELD>(), whole.all<JSON_FIELD>());
    }
}

TEST(JsonField, WhatStandsBehindTheValueIsLeftToTheStreamWhateverItIs) {
    Receiver<JsonFrame> receiver;
    receiver.feed_text("\xF0\x0F{}]" + json_frame("[2]"));
    EXPECT_THAT(receiver.all<JSON_FIELD>(), ElementsAre(bytes_of("{}"), bytes_of("[2]")));
    EXPECT_THAT(receiver.all<STATUS_FIELD>(), ElementsAre(']', '#'));
}

TEST(JsonField, ADepthBelowZeroAndAChunkWithoutABracketBreakTheFrame) {
    for (std::string const& broken : std::vector<std::string>{"}", "[}]", "{]}", "a", "1,2"}) {
        Receiver<JsonFrame> receiver;
        receiver.feed_text(json_frame(broken));
        receiver.feed_text(json_frame("[3]"));
        EXPECT_THAT(receiver.all<JSON_FIELD>(), ElementsAre(bytes_of("[3]"))) << broken;
    }
}

TEST(JsonField, AValueThatDoesNotEndBreaksWhenTheFieldIsFull) {
    for (std::string const& endless : {std::string(40, '['), "{\"" + std::string(40, 'x')}) {
        Receiver<JsonFrame> whole;
        whole.feed_text("\xF0\x0F" + endless);
        Receiver<JsonFrame> cut;
        cut.feed_byte_by_byte("\xF0\x0F" + endless);
        for (auto* const receiver : {&whole, &cut}) {
            receiver->feed_text(json_frame("{}"));
            EXPECT_THAT(receiver->all<JSON_FIELD>(), ElementsAre(bytes_of("{}")));
        }
    }
}

TEST(JsonField, AValueLargerThanTheBufferIsNotWrittenBehindIt) {
    Receiver<JsonFrame> receiver(8);
    receiver.feed_text(json_frame("[1,2,3,4,5,6,7]") + json_frame("[]"));
    EXPECT_THAT(receiver.all<JSON_FIELD>(), ElementsAre(bytes_of("[]")));
}

using LengthFirst = std::tuple<Start<>, Length, Type, Data<>>;

TEST(LengthBeforeType, TellsTheSizeOfThePayload) {
    Receiver<LengthFirst> receiver;
    receiver.feed({0xF0, 0x0F, 4, 0, 1, 7, 8, 9});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{7, 8, 9})));
}

TEST(LengthBeforeType, APacketThatHasAnotherSizeBreaksTheFrameAndIsSaid) {
    Receiver<LengthFirst> receiver;
    EXPECT_EQ(receiver.feed_with_debug({0xF0, 0x0F, 20, 0, 2}),
              "Mismatch in data field size (method CheckType):\n"
              "  Received type id: 2 (0x0000000000000002)\n"
              "  Expected size:    0 (0x0000000000000000)\n"
              "  Calculated size:  19 (0x0000000000000013)\n"
              "---------------------------\n"
              "-------------BROKEN PACKET START-------------\n"
              "Field ID_FIELD received:  0xF0 0x0F\n"
              "Field LEN_FIELD received:  0x14 0x00\n"
              "Field TYPE_FIELD received:  0x02\n"
              "-------------BROKEN PACKET STOP-------------\n");
}

TEST(LengthBeforeType, PayloadBeyondItsLargestSizeBreaksTheFrameThoughTheBufferHasRoom) {
    Receiver<LengthFirst> receiver;
    Bytes frame{0xF0, 0x0F, 34, 0, 1};
    frame.resize(frame.size() + 33);
    receiver.feed(frame);
    EXPECT_THAT(receiver.frames, IsEmpty());
    receiver.feed({0xF0, 0x0F, 2, 0, 1, 5});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{5})));
}

/// A type that comes with a size of its own.
using SizedFrame = std::tuple<
    Start<>,
    FieldPrototype<TYPE_FIELD, unsigned char, 0, K_IN_LEN, 1, 1, nullptr, &expect_four_bytes>,
    Length, Data<>>;

TEST(SizedFrame, ALengthThatDisagreesWithAKnownSizeBreaksTheFrameAndIsSaid) {
    Receiver<SizedFrame> receiver;
    receiver.feed({0xF0, 0x0F, 1, 5, 0, 6, 7, 8, 9});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{6, 7, 8, 9})));
    EXPECT_EQ(receiver.feed_with_debug({0xF0, 0x0F, 1, 0x2A, 0}),
              "\nMismatch in length field (method SetDataLen):\n"
              "  Expected: 5 (0x5)\n"
              "  Received: 42 (0x2a)\n"
              "-------------BROKEN PACKET START-------------\n"
              "Field ID_FIELD received:  0xF0 0x0F\n"
              "Field TYPE_FIELD received:  0x01\n"
              "Field LEN_FIELD received:  0x2A 0x00\n"
              "-------------BROKEN PACKET STOP-------------\n");
}

TEST(JsonField, OfAWholeChunkEndsWhereItsValueDoes) {
    Receiver<JsonFrame> receiver;
    receiver.feed_whole(bytes_of(json_frame("{\"a\":1}") + json_frame("[2]")));
    EXPECT_THAT(receiver.all<JSON_FIELD>(), ElementsAre(bytes_of("{\"a\":1}"), bytes_of("[2]")));
}

/// The head in one buffer, the payload in another.
using SplitFrame = std::tuple<Start<>, Type, Length, Data<1>, Status>;

TEST(SplitFrame, FieldsOfABufferStandOneBehindTheOther) {
    Receiver<SplitFrame> receiver(8);
    receiver.feed({0xF0, 0x0F, 1, 9, 0, 1, 2, 3, 4, 5, 6, 7, 8, '!'});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{1, 2, 3, 4, 5, 6, 7, 8})));
    EXPECT_THAT(receiver.all<STATUS_FIELD>(), ElementsAre('!'));
}

TEST(SplitFrame, OfAWholeChunkIsCopiedToItsBuffers) {
    Receiver<SplitFrame> receiver(8);
    receiver.feed({0xF0, 0x0F, 1});
    receiver.feed_whole({0xF0, 0x0F, 1, 3, 0, 7, 8, '!', 0xF0, 0x0F});
    receiver.feed_whole({1, 3, 0, 7, 8, '!'});
    EXPECT_THAT(receiver.all<DATA_FIELD>(), ElementsAre(DataCopy(Bytes{7, 8})));
}

TEST(SplitFrame, IsAWriteForEachPiece) {
    Bytes head(8);
    Bytes payload(8);
    TxContainer<SplitFrame, BitwiseCrc> tx({span_of(head), span_of(payload)});
    RecordingInterface wire;
    tx.set_interface(wire);
    unsigned char const type = 1;
    unsigned char const status = '!';
    Bytes const data{7, 8};
    EXPECT_EQ(tx.send_packet(make_field_info<TYPE_FIELD, unsigned char>(&type),
                             make_field_info<STATUS_FIELD, unsigned char>(&status),
                             make_field_info<DATA_FIELD, unsigned char*>(data.data(), data.size())),
              8U);
    EXPECT_THAT(wire.frames, ElementsAre(Bytes{0xF0, 0x0F, 1, 3, 0, 7, 8, '!'}));
    EXPECT_EQ(wire.writes, 3);
    EXPECT_EQ(payload[0], 7);
}

TEST(FieldInfo, IsFoundByTheKindOfItsField) {
    unsigned char const type = 1;
    unsigned const dest = 2;
    auto const infos = std::tuple(make_field_info<TYPE_FIELD, unsigned char>(&type),
                                  make_field_info<DEST_FIELD, unsigned>(&dest, 4));
    EXPECT_EQ(*get_field_info_by_name<DEST_FIELD>(infos).value, 2U);
    unsigned long sizes = 0;
    for_each_info(
        infos, [&](auto const& info) { sizes += info.size == K_UNKNOWN_SIZE ? 100 : info.size; });
    EXPECT_EQ(sizes, 104U);
}

TEST(FieldContainer, FindsFieldsByTheirKindFromAnyOrdinal) {
    using Twice = std::tuple<Start<>, Status, Type, Status>;
    using Container = FieldContainer<Twice, BitwiseCrc>;
    static_assert(Container::has_field<STATUS_FIELD>());
    static_assert(Container::has_field<STATUS_FIELD, 2>());
    static_assert(!Container::has_field<TYPE_FIELD, 3>());
    static_assert(!Container::has_field<CRC_FIELD>());
    Bytes memory(8);
    Container container({span_of(memory)});
    EXPECT_NE(static_cast<Field*>(&container.get<STATUS_FIELD>()),
              static_cast<Field*>(&container.get<STATUS_FIELD, 2>()));
}

} // namespace

MatchStatus expect_four_bytes(void* container) {
    auto& data = static_cast<RxContainer<SizedFrame, BitwiseCrc>*>(container)->get<DATA_FIELD>();
    data.assign_size(4);
    return data.set_id(1) ? MatchStatus::Match : MatchStatus::Mismatch;
}

} // namespace proto::test
