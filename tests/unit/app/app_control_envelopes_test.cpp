#include "app/app_control_envelopes.hpp"

#include "bus/Envelope.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace tessaron {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using Fields = std::map<std::string, std::string>;

Fields fields_of(Bytes const& payload) {
    return bus::decode_envelope(payload).fields;
}

std::string data_of(Bytes const& payload) {
    auto const data = bus::decode_envelope(payload).data;
    return {data.begin(), data.end()};
}

Bytes reply(std::string const& data, Fields fields = {{"status", "ok"}}) {
    return encode_envelope(bus::Envelope{std::move(fields), {data.begin(), data.end()}});
}

TEST(AppControlEnvelopes, RequestsHaveAFieldPerMember) {
    EXPECT_EQ(fields_of(RebootRequest{"why"}.build()), (Fields{{"reason", "why"}}));
    EXPECT_EQ(fields_of(CrashTestRequest{"why"}.build()), (Fields{{"reason", "why"}}));
    EXPECT_EQ(fields_of(SessionHistoryRequest{5}.build()), (Fields{{"max_records", "5"}}));
    EXPECT_EQ(fields_of(CrashHistoryRequest{5, 2}.build()),
              (Fields{{"max_records", "5"}, {"skip_from_end", "2"}}));
    EXPECT_EQ(fields_of(CrashIncidentRequest{12, 1700}.build()),
              (Fields{{"pid", "12"}, {"ts", "1700"}}));
    EXPECT_EQ(fields_of(IncidentHistoryRequest{7}.build()), (Fields{{"max_records", "7"}}));
    EXPECT_EQ(
        fields_of(SessionLogRequest{12, 3, 1, 4}.build()),
        (Fields{{"pid", "12"}, {"log_line", "3"}, {"generation", "1"}, {"skip_from_end", "4"}}));
}

TEST(AppControlEnvelopes, RequestsReadBack) {
    EXPECT_EQ(RebootRequest::parse(RebootRequest{"a = b\n"}.build()).reason, "a = b\n");
    EXPECT_EQ(CrashTestRequest::parse(CrashTestRequest{"x"}.build()).reason, "x");
    EXPECT_EQ(CrashHistoryRequest::parse(CrashHistoryRequest{5, 2}.build()).skip_from_end, 2U);
    EXPECT_EQ(CrashIncidentRequest::parse(CrashIncidentRequest{12, -1}.build()).ts, -1);
    auto const log = SessionLogRequest::parse(SessionLogRequest{12, 3, 1, 4}.build());
    EXPECT_EQ(log.pid, 12);
    EXPECT_EQ(log.log_line, 3U);
    EXPECT_EQ(log.generation, 1U);
    EXPECT_EQ(log.skip_from_end, 4U);
}

TEST(AppControlEnvelopes, WhatIsNotAskedForHasItsDefaultAndWhatIsNoNumberIsRefused) {
    Bytes const empty = bus::encode_envelope({});
    EXPECT_EQ(SessionHistoryRequest::parse(empty).max_records, 0U);
    EXPECT_EQ(IncidentHistoryRequest::parse(empty).max_records, 0U);
    EXPECT_EQ(RebootRequest::parse(empty).reason, "");
    EXPECT_THROW(SessionHistoryRequest::parse(reply("", {{"max_records", "many"}})),
                 std::invalid_argument);
    EXPECT_THROW(CrashIncidentRequest::parse(reply("", {{"pid", ""}})), std::invalid_argument);
    EXPECT_THROW(RebootRequest::parse({}), std::invalid_argument);
}

TEST(AppControlEnvelopes, AStatusIsOkOrAnErrorWithItsTextAndNoData) {
    EXPECT_EQ(fields_of(AppControlStatusReply().build()), (Fields{{"status", "ok"}}));
    AppControlStatusReply const bad{false, "why", "not sent"};
    EXPECT_EQ(fields_of(bad.build()), (Fields{{"status", "error"}, {"error", "why"}}));
    EXPECT_EQ(data_of(bad.build()), "");
    auto const read =
        AppControlStatusReply::parse(AppControlStatusReply{true, "", "two\nlines\n"}.build());
    EXPECT_EQ(read.text, "two\nlines\n");
}

TEST(AppControlEnvelopes, SessionsAreTheLinesOfTheirHistory) {
    SessionHistoryReply sent;
    sent.records.resize(2);
    sent.records[0].is_start = true;
    sent.records[0].pid = 12;
    sent.records[0].args = {"a b", "c"};
    sent.records[1].pid = 12;
    sent.records[1].reason = "signal: a = b";
    EXPECT_EQ(data_of(sent.build()),
              format_session_start(sent.records[0]) + "\n" + format_session_stop(sent.records[1]));
    auto const read = SessionHistoryReply::parse(sent.build());
    ASSERT_THAT(read.records, SizeIs(2));
    EXPECT_TRUE(read.records[0].is_start);
    EXPECT_EQ(read.records[0].args, sent.records[0].args);
    EXPECT_EQ(read.records[1].reason, "signal: a = b");
    EXPECT_THAT(SessionHistoryReply::parse(reply("no session")).records, IsEmpty());
}

TEST(AppControlEnvelopes, CrashesAreHeaderDetailAndFrames) {
    CrashHistoryReply sent;
    sent.records.resize(2);
    sent.records[0].pid = 12;
    sent.records[0].detail = "thrown";
    sent.records[1].signum = 6;
    sent.records[1].addr = 0xdead;
    sent.records[1].backtrace = {"frame 1", "frame 2"};
    EXPECT_EQ(data_of(sent.build()),
              format_crash_header_line(sent.records[0]) + "\ndetail: thrown\n" +
                  format_crash_header_line(sent.records[1]) + "\nframe 1\nframe 2");
    auto const read = CrashHistoryReply::parse(sent.build());
    ASSERT_THAT(read.records, SizeIs(2));
    EXPECT_EQ(read.records[0].detail, "thrown");
    EXPECT_THAT(read.records[0].backtrace, IsEmpty());
    EXPECT_EQ(read.records[1].addr, 0xdeadU);
    EXPECT_EQ(read.records[1].backtrace, sent.records[1].backtrace);
}

TEST(AppControlEnvelopes, IncidentsAreALineEach) {
    IncidentHistoryReply sent;
    sent.records = {{12, 1700, "ERROR", "disk = full\nvery"}, {13, 1701, "", ""}};
    EXPECT_EQ(data_of(sent.build()), "pid=12 ts=1700 level=ERROR message=disk = full very\n"
                                     "pid=13 ts=1701 level= message=");
    auto const read = IncidentHistoryReply::parse(sent.build());
    EXPECT_THAT(read.records, ElementsAre(IncidentRecord{12, 1700, "ERROR", "disk = full very"},
                                          IncidentRecord{13, 1701, "", ""}));
}

TEST(AppControlEnvelopes, ALineThatIsNoIncidentIsPassedOver) {
    EXPECT_THAT(IncidentHistoryReply::parse(
                    reply("pid=x ts=1 level=E message=m\npid=1\n\npid=1 ts=2 level=E\nts=1 pid=2"))
                    .records,
                IsEmpty());
}

TEST(AppControlEnvelopes, ReasonsAreNameAndDescription) {
    TerminationReasonsReply sent;
    sent.reasons = {{"normal", "Clean, expected"}, {"reboot", ""}};
    EXPECT_EQ(data_of(sent.build()), "normal\x1f"
                                     "Clean, expected\nreboot\x1f");
    EXPECT_EQ(TerminationReasonsReply::parse(sent.build()).reasons, sent.reasons);
    EXPECT_THAT(TerminationReasonsReply::parse(reply("name alone")).reasons,
                ElementsAre(TerminationReasonsReply::Reason{"name alone", ""}));
}

TEST(AppControlEnvelopes, ASessionsLogTellsItsPlaceAndMayBePartial) {
    SessionLogReply sent;
    sent.error = "partial log - generation 1 no longer retained";
    sent.lines = {"one", "", "three"};
    sent.from_line = 4;
    sent.total_lines = 6;
    sent.session_from_line = 10;
    sent.session_to_line = 20;
    EXPECT_THAT(fields_of(sent.build()),
                ElementsAre(Pair("error", sent.error), Pair("from_line", "4"),
                            Pair("session_from_line", "10"), Pair("session_to_line", "20"),
                            Pair("status", "ok"), Pair("total_lines", "6")));
    auto const read = SessionLogReply::parse(sent.build());
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(read.error, sent.error);
    EXPECT_EQ(read.lines, sent.lines);
    EXPECT_EQ(read.from_line, 4U);
    EXPECT_EQ(read.session_to_line, 20U);
}

TEST(AppControlEnvelopes, ARepliesErrorIsRead) {
    CrashIncidentReply const sent{false, "not there", {"not sent"}};
    auto const read = CrashIncidentReply::parse(sent.build());
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error, "not there");
    EXPECT_THAT(read.lines, IsEmpty());
}

} // namespace
} // namespace tessaron
