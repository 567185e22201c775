#include "app/trace_merge.hpp"

#include "app/incident_report.hpp"
#include "app/signal_safe_text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace tessaron {
namespace {

using bus::BusTraceEntry;
using proto::bus::MessageType;
using testing::ElementsAre;

struct Rings {
    LogTraceRingBuffer<4> log;
    bus::BusTraceRingBuffer<4> bus;

    void add_log(std::uint64_t time) { log.record(time, LogLevel::INFO, std::to_string(time)); }
    void add_bus(std::uint64_t time) { bus.record({time}, {}, std::to_string(time)); }
    std::vector<std::string> merged() const {
        std::vector<std::string> entries;
        auto const log_copy = log.snapshot();
        auto const bus_copy = bus.snapshot();
        merge_log_and_bus_trace(
            log_copy.entries, log_copy.write_index, bus_copy.entries, bus_copy.write_index,
            [&](LogTraceEntry const& entry) {
                entries.push_back(std::string("log ") + entry.text);
            },
            [&](BusTraceEntry const& entry) {
                entries.push_back(std::string("bus ") + entry.topic);
            });
        return entries;
    }
};

TEST(MergeLogAndBusTrace, IsInTheOrderOfTheTimes) {
    Rings rings;
    rings.add_log(10);
    rings.add_bus(15);
    rings.add_log(20);
    rings.add_log(21);
    rings.add_bus(30);
    EXPECT_THAT(rings.merged(), ElementsAre("log 10", "bus 15", "log 20", "log 21", "bus 30"));
}

TEST(MergeLogAndBusTrace, OfTwoOfTheSameTimeTheLogsComesFirst) {
    Rings rings;
    rings.add_bus(10);
    rings.add_bus(10);
    rings.add_log(10);
    EXPECT_THAT(rings.merged(), ElementsAre("log 10", "bus 10", "bus 10"));
}

TEST(MergeLogAndBusTrace, ARingAloneIsTakenToItsEnd) {
    Rings logs;
    logs.add_log(1);
    logs.add_log(2);
    EXPECT_THAT(logs.merged(), ElementsAre("log 1", "log 2"));
    Rings messages;
    messages.add_bus(1);
    messages.add_bus(2);
    EXPECT_THAT(messages.merged(), ElementsAre("bus 1", "bus 2"));
    EXPECT_THAT(Rings().merged(), ElementsAre());
}

TEST(MergeLogAndBusTrace, FullRingsBeginWithTheirOldestEntry) {
    Rings rings;
    for (std::uint64_t time = 1; time <= 4; ++time) {
        rings.add_log(10 * time);
    }
    for (std::uint64_t time = 1; time <= 6; ++time) {
        rings.add_bus(10 * time + 5);
    }
    EXPECT_THAT(rings.merged(), ElementsAre("log 10", "log 20", "log 30", "bus 35", "log 40",
                                            "bus 45", "bus 55", "bus 65"));
}

TEST(MergeLogAndBusTrace, AnEntryThatIsOutOfOrderHoldsUpItsOwnRingAlone) {
    Rings rings;
    rings.add_log(50); // The clock was put back.
    rings.add_log(10);
    rings.add_bus(20);
    rings.add_bus(60);
    EXPECT_THAT(rings.merged(), ElementsAre("bus 20", "log 50", "log 10", "bus 60"));
}

struct TraceLines : testing::Test {
    Logger::LogTraceSnapshot& log() { return *log_; }
    bus::Hub::BusTraceSnapshot& bus() { return *bus_; }
    std::string text() const {
        std::string text;
        append_merged_trace(text, *log_, *bus_);
        return text;
    }
    BusTraceEntry& add_bus(char direction, MessageType type, std::uint32_t msg_id,
                           char const* topic) {
        BusTraceEntry& entry = bus_->entries[bus_->write_index++];
        entry.timestamp = 1'700'000'000'000'002;
        entry.source = 200;
        entry.destination = 0xFFFFFFFF;
        entry.msg_id = msg_id;
        entry.size = 22;
        entry.type = type;
        entry.direction = direction;
        detail::copy_truncated(entry.topic, sizeof entry.topic, topic);
        detail::copy_truncated(entry.data, sizeof entry.data, "free=12");
        return entry;
    }
    void add_log(LogLevel level, char const* text) {
        LogTraceEntry& entry = log_->entries[log_->write_index++];
        entry.timestamp = 1'700'000'000'000'001;
        entry.level = level;
        detail::copy_truncated(entry.text, sizeof entry.text, text);
    }

    std::unique_ptr<Logger::LogTraceSnapshot> const log_ =
        std::make_unique<Logger::LogTraceSnapshot>();
    std::unique_ptr<bus::Hub::BusTraceSnapshot> const bus_ =
        std::make_unique<bus::Hub::BusTraceSnapshot>();
};

TEST_F(TraceLines, NameLevelTimeAndTextOfWhatWasLogged) {
    add_log(LogLevel::WARNING, "low on space");
    add_log(static_cast<LogLevel>(9), "two\nlines");
    EXPECT_EQ(text(), "[LOG WARNING] ts=1700000000000001 low on space\n"
                      "[LOG UNKNOWN] ts=1700000000000001 two lines\n");
}

TEST_F(TraceLines, NameAllThatIsKnownOfAMessage) {
    add_bus('T', MessageType::EVENT, 5, "disk.state");
    EXPECT_EQ(text(), "[BUS EVENT TX] ts=1700000000000002 200 -> 4294967295 msg_id=5 "
                      "topic=\"disk.state\" data=[free=12] (22b)\n");
}

TEST_F(TraceLines, LeaveOutAnIdOfZeroAndAnEmptyTopic) {
    add_bus('R', MessageType::SUBSCRIBE_REQUEST, 0, "");
    EXPECT_EQ(text(), "[BUS SUBSCRIBE_REQUEST RX] ts=1700000000000002 200 -> 4294967295 "
                      "data=[free=12] (22b)\n");
}

TEST_F(TraceLines, AnyDirectionButSentIsReceived) {
    add_bus('?', static_cast<MessageType>(0x77), 1, "");
    EXPECT_EQ(text(), "[BUS UNKNOWN RX] ts=1700000000000002 200 -> 4294967295 msg_id=1 "
                      "data=[free=12] (22b)\n");
}

TEST_F(TraceLines, AreTheSameFromACrashHandler) {
    add_log(LogLevel::ERROR, "first\nline");
    add_bus('T', MessageType::REQUEST, 7, "ask");
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    {
        detail::SignalSafeWriter out(ends[1]);
        write_merged_trace(out, log().entries, log().write_index, bus().entries, bus().write_index);
    }
    ::close(ends[1]);
    char room[4096];
    ssize_t const count = ::read(ends[0], room, sizeof room);
    ::close(ends[0]);
    EXPECT_EQ(std::string(room, static_cast<std::size_t>(count)), text());
}

} // namespace
} // namespace tessaron
