#include "logger/bus/logger_envelopes.hpp"

#include "bus/Envelope.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace tessaron {
namespace {

using bus::Envelope;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

Bytes envelope(std::map<std::string, std::string> fields, std::string const& data = "") {
    return encode_envelope(Envelope{std::move(fields), {data.begin(), data.end()}});
}

TEST(LoggerEnvelopes, AnEntryHasAFieldPerMember) {
    LoggerEntry const entry{LogLevel::WARNING, "app", "two\nlines", "2024-01-31_12:34:56.789",
                            1200};
    EXPECT_THAT(bus::decode_envelope(entry.build()).fields,
                ElementsAre(Pair("listener_address", "1200"), Pair("message", "two\nlines"),
                            Pair("severity", "2"), Pair("source", "app"),
                            Pair("timestamp", "2024-01-31_12:34:56.789")));
    LoggerEntry const read = LoggerEntry::parse(entry.build());
    EXPECT_EQ(read.severity, LogLevel::WARNING);
    EXPECT_EQ(read.source, "app");
    EXPECT_EQ(read.message, "two\nlines");
    EXPECT_EQ(read.timestamp, entry.timestamp);
    EXPECT_EQ(read.listener_address, 1200U);
}

TEST(LoggerEnvelopes, AnEntryWithoutFieldsIsForNobody) {
    LoggerEntry const entry = LoggerEntry::parse(envelope({}));
    EXPECT_EQ(entry.severity, LogLevel::INFO);
    EXPECT_EQ(entry.listener_address, 0U);
    EXPECT_EQ(entry.message, "");
}

TEST(LoggerEnvelopes, ASeverityBeyondTheLevelsIsCarriedAndOneBeyondAByteRefused) {
    EXPECT_EQ(static_cast<int>(LoggerEntry::parse(envelope({{"severity", "200"}})).severity), 200);
    EXPECT_THROW(LoggerEntry::parse(envelope({{"severity", "256"}})), std::invalid_argument);
    EXPECT_THROW(LoggerEntry::parse(envelope({{"listener_address", "x"}})), std::invalid_argument);
}

TEST(LoggerEnvelopes, ALineEventHasAFieldPerMember) {
    LoggerLineEvent const event{7, "[a] [INFO] text", 1200, 3};
    EXPECT_THAT(bus::decode_envelope(event.build()).fields,
                ElementsAre(Pair("generation", "3"), Pair("line_number", "7"),
                            Pair("source_address", "1200"), Pair("text", "[a] [INFO] text")));
    LoggerLineEvent const read = LoggerLineEvent::parse(event.build());
    EXPECT_EQ(read.line_number, 7U);
    EXPECT_EQ(read.text, event.text);
    EXPECT_EQ(read.source_address, 1200U);
    EXPECT_EQ(read.generation, 3U);
}

TEST(LoggerEnvelopes, AnInfoRequestIsAnEmptyEnvelope) {
    EXPECT_EQ(LogInfoRequest().build(), Bytes(8, 0));
    EXPECT_NO_THROW(LogInfoRequest::parse(envelope({{"unknown", "field"}})));
    EXPECT_THROW(LogInfoRequest::parse({}), std::invalid_argument);
}

TEST(LoggerEnvelopes, AnInfoReplyReadsBack) {
    LogInfoReply const reply{true, "", "/log/app.log", 12, 3456, LogLevel::ERROR, 4};
    EXPECT_THAT(bus::decode_envelope(reply.build()).fields,
                ElementsAre(Pair("file_size_bytes", "3456"), Pair("generation", "4"),
                            Pair("line_count", "12"), Pair("min_level", "3"),
                            Pair("path", "/log/app.log"), Pair("status", "ok")));
    LogInfoReply const read = LogInfoReply::parse(reply.build());
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(read.path, reply.path);
    EXPECT_EQ(read.line_count, 12U);
    EXPECT_EQ(read.file_size_bytes, 3456U);
    EXPECT_EQ(read.min_level, LogLevel::ERROR);
    EXPECT_EQ(read.generation, 4U);
}

TEST(LoggerEnvelopes, AReadRequestMayLeaveTheGenerationOut) {
    EXPECT_EQ(LogReadRequest::parse(LogReadRequest{2, 5, std::nullopt}.build()).generation,
              std::nullopt);
    LogReadRequest const read = LogReadRequest::parse(LogReadRequest{2, 5, 0}.build());
    EXPECT_EQ(read.from_line, 2U);
    EXPECT_EQ(read.to_line, 5U);
    EXPECT_EQ(read.generation, 0U);
    EXPECT_THROW(LogReadRequest::parse(envelope({{"from_line", "-1"}})), std::invalid_argument);
}

TEST(LoggerEnvelopes, AReadReplyHasItsLinesInTheData) {
    LogReadReply const reply{true, "", 9, 4, 2, false, {"one", "", "three"}};
    Envelope const sent = bus::decode_envelope(reply.build());
    EXPECT_THAT(sent.fields,
                ElementsAre(Pair("available", "0"), Pair("from_line", "4"), Pair("generation", "2"),
                            Pair("status", "ok"), Pair("total_lines", "9")));
    EXPECT_EQ(std::string(sent.data.begin(), sent.data.end()), "one\n\nthree");
    LogReadReply const read = LogReadReply::parse(reply.build());
    EXPECT_EQ(read.total_lines, 9U);
    EXPECT_EQ(read.from_line, 4U);
    EXPECT_EQ(read.generation, 2U);
    EXPECT_FALSE(read.available);
    EXPECT_EQ(read.lines, reply.lines);
    EXPECT_THAT(LogReadReply::parse(LogReadReply().build()).lines, IsEmpty());
}

TEST(LoggerEnvelopes, ALevelIsANumberFrom0To3) {
    EXPECT_EQ(log_level_of("0"), LogLevel::TRACE);
    EXPECT_EQ(log_level_of("3"), LogLevel::ERROR);
    for (std::string const text : {"4", "-1", "", "INFO", "1 ", "999"}) {
        EXPECT_EQ(log_level_of(text), std::nullopt) << text;
    }
    EXPECT_EQ(LogLevelReply::parse(LogLevelReply{true, "", LogLevel::WARNING}.build()).level,
              LogLevel::WARNING);
    EXPECT_EQ(LogLevelReply::parse(LogLevelReply{false, "no", std::nullopt}.build()).error, "no");
    EXPECT_EQ(LogLevelRequest::parse(LogLevelRequest{"2"}.build()).level, "2");
}

} // namespace
} // namespace tessaron
