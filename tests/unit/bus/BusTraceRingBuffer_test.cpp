#include "bus/BusTraceRingBuffer.hpp"

#include "bus/Envelope.hpp"
#include "bus/payload_text.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace tessaron::bus {
namespace {

using proto::bus::Bytes;
using proto::bus::MessageType;

constexpr std::uint64_t K_TIME = 1'706'704'496'789'000;

detail::TracedMessage message(std::uint32_t msg_id = 5) {
    return {K_TIME, BusTraceEntry::K_SENT, MessageType::EVENT, 200, 0xFFFFFFFF, msg_id};
}

Bytes envelope(std::map<std::string, std::string> fields, Bytes data = {}) {
    return encode_envelope({std::move(fields), std::move(data)});
}

BusTraceEntry recorded(Bytes const& payload, std::string_view topic = "topic") {
    BusTraceRingBuffer<1> ring;
    ring.record(message(), payload, topic);
    return ring.snapshot().entries[0];
}

TEST(BusTraceRingBuffer, RemembersWhatPassed) {
    BusTraceEntry const entry = recorded(envelope({{"free", "12"}}, {1, 2, 3}), "disk.state");
    EXPECT_EQ(entry.timestamp, K_TIME);
    EXPECT_EQ(entry.source, 200u);
    EXPECT_EQ(entry.destination, 0xFFFFFFFFu);
    EXPECT_EQ(entry.msg_id, 5u);
    EXPECT_EQ(entry.size, 4 + 4 + 4 + 4 + 2 + 4 + 3);
    EXPECT_EQ(entry.type, MessageType::EVENT);
    EXPECT_EQ(entry.direction, 'T');
    EXPECT_STREQ(entry.topic, "disk.state");
    EXPECT_STREQ(entry.data, "free=12");
}

TEST(BusTraceRingBuffer, After501RecordsTheOldestHasBeenOverwritten) {
    auto const ring = std::make_unique<BusTraceRingBuffer<500>>();
    for (std::uint32_t id = 1; id <= 501; ++id) {
        ring->record(message(id), {}, "");
    }
    EXPECT_EQ(ring->raw_write_index(), 501u);
    EXPECT_EQ(ring->raw_entries()[0].msg_id, 501u);
    EXPECT_EQ(ring->raw_entries()[1].msg_id, 2u);
    EXPECT_EQ(ring->raw_entries()[499].msg_id, 500u);
}

TEST(BusTraceRingBuffer, ATopicOf31BytesIsWholeAndALongerOneIsCut) {
    EXPECT_EQ(recorded({}, std::string(31, 'a')).topic, std::string(31, 'a'));
    EXPECT_EQ(recorded({}, std::string(32, 'b')).topic, std::string(28, 'b') + "...");
    EXPECT_EQ(recorded({}, std::string(33, 'c')).topic, std::string(28, 'c') + "...");
}

TEST(BusTraceRingBuffer, DataThatIsNoEnvelopeIsToldBySize) {
    EXPECT_STREQ(recorded(Bytes(12, 0xFF)).data, "(raw 12b)");
    EXPECT_STREQ(recorded({}).data, "(raw 0b)");
}

TEST(BusTraceRingBuffer, DataOf143BytesIsWholeAndMoreIsCut) {
    EXPECT_EQ(recorded(envelope({{"k", std::string(141, 'v')}})).data,
              "k=" + std::string(141, 'v'));
    EXPECT_EQ(recorded(envelope({{"k", std::string(142, 'v')}})).data,
              "k=" + std::string(138, 'v') + "...");
    EXPECT_EQ(recorded(envelope({{"k", std::string(5'000, 'v')}})).data,
              "k=" + std::string(138, 'v') + "...");
}

TEST(BusTraceRingBuffer, ASizeThatDoesNotFitIsTheLargest) {
    EXPECT_EQ(recorded(Bytes(65'535)).size, 65'535);
    EXPECT_EQ(recorded(Bytes(65'536)).size, 65'535);
    EXPECT_EQ(recorded(Bytes(1'000'000, 0xFF)).size, 65'535);
}

TEST(BusTraceRingBuffer, APeersBytesStayOnOneLine) {
    BusTraceEntry const entry = recorded(envelope({{"a\nb", "c\x1b[31m\x7f"}}), "x\ny\r\x01");
    EXPECT_STREQ(entry.topic, "x.y..");
    EXPECT_STREQ(entry.data, "a.b=c.[31m.");
}

TEST(BusTraceRingBuffer, AShorterMessageLeavesNothingOfTheFormerBehind) {
    BusTraceRingBuffer<1> ring;
    ring.record(message(), envelope({{"key", std::string(300, 'v')}}), std::string(40, 't'));
    ring.record(message(), {}, "");
    EXPECT_STREQ(ring.raw_entries()[0].topic, "");
    EXPECT_STREQ(ring.raw_entries()[0].data, "(raw 0b)");
}

TEST(BusTraceRingBuffer, TextsAreTerminatedWhateverThreadsMeetInASlot) {
    BusTraceRingBuffer<2> ring;
    std::vector<std::thread> threads;
    for (std::size_t thread = 1; thread <= 3; ++thread) {
        threads.emplace_back([&ring, thread] {
            Bytes const payload = envelope({{"k", std::string(60 * thread, 'x')}});
            std::string const topic(15 * thread, 't');
            for (std::uint32_t id = 0; id < 5'000; ++id) {
                ring.record(message(id), payload, topic);
            }
        });
    }
    for (int i = 0; i < 2'000; ++i) {
        for (BusTraceEntry const& entry : ring.snapshot().entries) {
            ASSERT_LT(strnlen(entry.topic, sizeof entry.topic), sizeof entry.topic);
            ASSERT_LT(strnlen(entry.data, sizeof entry.data), sizeof entry.data);
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ring.raw_write_index(), 15'000u);
}

TEST(FormatBusTraceEntry, IsOneLineWithTheTimeInUtc) {
    BusTraceEntry entry = recorded(envelope({{"free", "12"}}), "disk.state");
    EXPECT_EQ(format_bus_trace_entry(entry),
              "2024-01-31T12:34:56Z TX EVENT(0x30) 200 -> 4294967295 msg_id=5 topic=\"disk.state\" "
              "data=[free=12] (22b)");
    entry.direction = 'R';
    entry.type = MessageType::DISCOVERY_RESPONSE;
    entry.msg_id = 0;
    entry.topic[0] = '\0';
    EXPECT_EQ(format_bus_trace_entry(entry),
              "2024-01-31T12:34:56Z RX DISCOVERY_RESPONSE(0x21) 200 -> 4294967295 msg_id=0 "
              "topic=\"\" data=[free=12] (22b)");
}

TEST(FormatBusTraceEntry, AnyOtherDirectionIsAQuestionMark) {
    BusTraceEntry entry;
    EXPECT_EQ(format_bus_trace_entry(entry),
              "1970-01-01T00:00:00Z ? UNKNOWN(0x0) 0 -> 0 msg_id=0 topic=\"\" data=[] (0b)");
    entry.direction = 'X';
    EXPECT_NE(format_bus_trace_entry(entry).find("Z ? "), std::string::npos);
}

TEST(FormatBusTraceData, NamesAnEnvelopesKeysAndValues) {
    EXPECT_EQ(format_bus_trace_data(envelope({{"a", "1"}, {"b", ""}}, {9, 9})), "a=1, b=");
    EXPECT_EQ(format_bus_trace_data(envelope({})), "");
}

TEST(FormatBusTraceData, AnEnvelopeThatIsCutShortAnywhereIsRaw) {
    Bytes payload = envelope({{"a", "1"}, {"b", "2"}}, {9});
    payload.pop_back();
    EXPECT_EQ(format_bus_trace_data(payload), "(raw 28b)");
    EXPECT_EQ(format_bus_trace_data(Bytes(12, 0xFF)), "(raw 12b)");
    EXPECT_EQ(format_bus_trace_data({}), "(raw 0b)");
}

TEST(FormatBusTraceData, IsCutAt144Bytes) {
    EXPECT_EQ(format_bus_trace_data(envelope({{"k", std::string(142, 'v')}})).size(), 144u);
    EXPECT_EQ(format_bus_trace_data(envelope({{"k", std::string(143, 'v')}})),
              "k=" + std::string(142, 'v'));
    EXPECT_EQ(format_bus_trace_data(envelope({{"k", std::string(144, 'v')}, {"l", "m"}})).size(),
              144u);
}

} // namespace
} // namespace tessaron::bus
