#include "app/session_history.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;
using Texts = std::vector<std::string>;

system_clock::time_point at(std::int64_t ts) {
    return system_clock::time_point(seconds(ts));
}

SessionRecord sample_start() {
    SessionRecord record;
    record.is_start = true;
    record.ts = at(1700000000) + std::chrono::milliseconds(999);
    record.pid = 4242;
    record.exe = "/usr/bin/mirelclient";
    record.user = "root";
    record.cwd = "/";
    record.args = {"--verbose", "a b"};
    record.log_line = 17;
    record.generation = 3;
    return record;
}

SessionRecord sample_stop() {
    SessionRecord record;
    record.ts = at(1700000060);
    record.pid = 4242;
    record.log_line = 90;
    record.generation = 4;
    record.duration_s = seconds(60);
    record.reason = "stop signal: SIGTERM";
    return record;
}

SessionRecord parsed(std::string const& line) {
    auto const record = parse_session_line(line);
    EXPECT_TRUE(record) << line;
    return record.value_or(SessionRecord());
}

TEST(SessionLine, AStartLineHasItsFieldsInOrder) {
    EXPECT_EQ(format_session_start(sample_start()),
              "event=start ts=1700000000 pid=4242 exe=/usr/bin/mirelclient user=root cwd=/ "
              "log_line=17 generation=3 runtime= args=--verbose|a b");
}

TEST(SessionLine, AStopLineHasItsFieldsInOrder) {
    EXPECT_EQ(format_session_stop(sample_stop()),
              "event=stop ts=1700000060 pid=4242 duration_s=60 log_line=90 generation=4 runtime= "
              "reason=stop signal: SIGTERM");
}

TEST(SessionLine, AStartReadsBack) {
    SessionRecord const record = parsed(format_session_start(sample_start()));
    EXPECT_TRUE(record.is_start);
    EXPECT_EQ(record.ts, at(1700000000)) << "whole seconds";
    EXPECT_EQ(record.pid, 4242);
    EXPECT_EQ(record.exe, "/usr/bin/mirelclient");
    EXPECT_EQ(record.user, "root");
    EXPECT_EQ(record.cwd, "/");
    EXPECT_EQ(record.args, (Texts{"--verbose", "a b"}));
    EXPECT_EQ(record.log_line, 17U);
    EXPECT_EQ(record.generation, 3U);
    EXPECT_EQ(record.runtime, "");
}

TEST(SessionLine, AStopReadsBack) {
    SessionRecord const record = parsed(format_session_stop(sample_stop()));
    EXPECT_FALSE(record.is_start);
    EXPECT_EQ(record.ts, at(1700000060));
    EXPECT_EQ(record.pid, 4242);
    EXPECT_EQ(record.duration_s, seconds(60));
    EXPECT_EQ(record.log_line, 90U);
    EXPECT_EQ(record.generation, 4U);
    EXPECT_EQ(record.reason, "stop signal: SIGTERM");
}

TEST(SessionLine, AnArgumentWithABarReadsBackAsTwo) {
    SessionRecord start = sample_start();
    start.args = {"a|b"};
    EXPECT_EQ(parsed(format_session_start(start)).args, (Texts{"a", "b"}));
}

TEST(SessionLine, NoArgumentsReadBackAsNone) {
    SessionRecord start = sample_start();
    start.args = {};
    EXPECT_EQ(parsed(format_session_start(start)).args, Texts());
}

TEST(SessionLine, EmptyArgumentsBesideOthersAreKept) {
    SessionRecord start = sample_start();
    start.args = {"", "a", ""};
    EXPECT_EQ(parsed(format_session_start(start)).args, start.args);
}

TEST(SessionLine, AnArgumentMayLookLikeAnyField) {
    SessionRecord start = sample_start();
    start.args = {"ts=1 pid=2 args=x", "runtime=y reason=z"};
    SessionRecord const record = parsed(format_session_start(start));
    EXPECT_EQ(record.args, start.args);
    EXPECT_EQ(record.pid, 4242);
    EXPECT_EQ(record.runtime, "");
}

TEST(SessionLine, AReasonWithBlanksAndEqualSignsReadsBackWhole) {
    SessionRecord stop = sample_stop();
    stop.reason = "reboot: a=b  ts=7 reason=x args=y runtime=z ";
    SessionRecord const record = parsed(format_session_stop(stop));
    EXPECT_EQ(record.reason, stop.reason);
    EXPECT_EQ(record.ts, at(1700000060));
    EXPECT_EQ(record.runtime, "");
}

TEST(SessionLine, TheRuntimeMayHoldAnythingButTheKeyBehindIt) {
    SessionRecord start = sample_start();
    start.runtime = "ts=1 pid=2 reason=x runtime=y";
    EXPECT_EQ(parsed(format_session_start(start)).runtime, start.runtime);
    EXPECT_EQ(parsed(format_session_start(start)).pid, 4242);
    SessionRecord stop = sample_stop();
    stop.runtime = "ts=1 pid=2 args=x runtime=y";
    EXPECT_EQ(parsed(format_session_stop(stop)).runtime, stop.runtime);
    EXPECT_EQ(parsed(format_session_stop(stop)).reason, stop.reason);
}

TEST(SessionLine, TheRuntimeOfAHalfWrittenLineReachesToItsEnd) {
    SessionRecord const record = parsed("event=stop ts=80 pid=5 runtime=a b reas");
    EXPECT_EQ(record.runtime, "a b reas");
    EXPECT_EQ(record.reason, "");
}

TEST(SessionLine, AHalfWrittenLineIsReadShort) {
    SessionRecord const record = parsed("event=start ts=80 pid=5 exe=/bin/a us");
    EXPECT_EQ(record.pid, 5);
    EXPECT_EQ(record.log_line, 0U);
    EXPECT_EQ(record.args, Texts());
}

TEST(SessionLine, AStopOfTheCrashHandlerHasNoPlaceInTheLog) {
    SessionRecord const record =
        parsed("event=stop ts=1700000060 pid=4242 duration_s=60 log_line=0 generation=0 runtime= "
               "reason=crash: signal SIGSEGV");
    EXPECT_EQ(record.log_line, 0U);
    EXPECT_EQ(record.generation, 0U);
    EXPECT_EQ(record.reason, "crash: signal SIGSEGV");
}

TEST(SessionLine, APathWithBlanksReadsBackWhole) {
    SessionRecord start = sample_start();
    start.cwd = "/home/me/my  old things";
    start.exe = "/opt/a b/run";
    SessionRecord const record = parsed(format_session_start(start));
    EXPECT_EQ(record.cwd, start.cwd);
    EXPECT_EQ(record.exe, start.exe);
    EXPECT_EQ(record.log_line, 17U);
}

TEST(SessionLine, APathThatLooksLikeFieldsDoesNotReplaceTheRealOnes) {
    SessionRecord start = sample_start();
    start.cwd = "/tmp/x event=stop ts=1 pid=2";
    SessionRecord const record = parsed(format_session_start(start));
    EXPECT_TRUE(record.is_start);
    EXPECT_EQ(record.ts, at(1700000000));
    EXPECT_EQ(record.pid, 4242);
}

TEST(SessionLine, LineBreaksInValuesBecomeBlanks) {
    SessionRecord stop = sample_stop();
    stop.reason = "one\nevent=start ts=1 pid=1\r\ntwo";
    std::string const line = format_session_stop(stop);
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(parsed(line).reason, "one event=start ts=1 pid=1  two");
    SessionRecord start = sample_start();
    start.args = {"a\nb"};
    start.cwd = "/x\ny";
    EXPECT_EQ(format_session_start(start).find('\n'), std::string::npos);
    EXPECT_EQ(parsed(format_session_start(start)).cwd, "/x y");
}

TEST(SessionLine, ACarriageReturnAtTheEndIsNotPartOfTheReason) {
    EXPECT_EQ(parsed("event=stop ts=80 pid=5 reason=end\r").reason, "end");
}

TEST(SessionLine, ALineBreakWithinALinePartsWordsLikeABlank) {
    SessionRecord const record = parsed("event=start\rts=80 pid=5\nexe=/a\rb");
    EXPECT_EQ(record.pid, 5);
    EXPECT_EQ(record.exe, "/a b");
}

TEST(SessionLine, UnknownKeysArePassedOver) {
    SessionRecord const record = parsed("event=start ts=80 colour=red words here pid=5 exe=/a");
    EXPECT_EQ(record.pid, 5);
    EXPECT_EQ(record.exe, "/a");
}

TEST(SessionLine, LimitsOfTheNumbersReadBack) {
    SessionRecord const record =
        parsed("event=stop ts=-5 pid=9223372036854775807 duration_s=9223372036854775807 "
               "log_line=18446744073709551615 generation=18446744073709551615");
    EXPECT_EQ(record.ts, at(-5));
    EXPECT_EQ(record.pid, 9223372036854775807);
    EXPECT_EQ(record.duration_s, seconds::max());
    EXPECT_EQ(record.log_line, UINT64_MAX);
    EXPECT_EQ(format_session_stop(record).substr(0, 17), "event=stop ts=-5 ");
}

TEST(SessionLine, UnreadableLinesAreNoRecord) {
    for (char const* const line : {
             "",
             " ",
             "=",
             "event=",
             "event=starts ts=80 pid=5",
             "event=pause ts=80 pid=5",
             "ts=80 pid=5",
             "event=start",
             "event=start pid=5",
             "event=start ts=80",
             "event=start ts= pid=5",
             "event=start ts=80a pid=5",
             "event=start ts=+80 pid=5",
             "event=start ts=80 pid=five",
             "event=start ts=80 pid=0x5",
             "event=stop ts=80 pid=5 duration_s=1.5",
             "event=stop ts=80 pid=5 log_line=-1",
             "event=stop ts=80 pid=5 log_line=18446744073709551616",
             "event=stop ts=80 pid=5 generation=x",
             "event=stop ts=9223372036854775807 pid=5", // beyond what the clock can hold
             "event=stop ts=99999999999999999999 pid=5",
         }) {
        EXPECT_FALSE(parse_session_line(line)) << line;
    }
}

class SessionHistoryTest : public testing::Test {
protected:
    void put(std::string const& contents) { ASSERT_TRUE(write_file(path_, contents, O_TRUNC)); }

    std::vector<long> pids(std::size_t max) {
        std::vector<long> result;
        for (SessionRecord const& record : read_session_history(path_, max)) {
            result.push_back(record.pid);
        }
        return result;
    }

    test::TemporaryDirectory directory_;
    std::string const path_ = directory_ / "sessions.log";
};

TEST_F(SessionHistoryTest, LinesAreAppended) {
    ASSERT_TRUE(append_session_line(path_, "event=start ts=1 pid=1"));
    ASSERT_TRUE(append_session_line(path_, "event=stop ts=2 pid=1"));
    EXPECT_EQ(read_file(path_), "event=start ts=1 pid=1\nevent=stop ts=2 pid=1\n");
}

TEST_F(SessionHistoryTest, AHalfWrittenLineIsEndedFirst) {
    put("event=start ts=1 pi");
    ASSERT_TRUE(append_session_line(path_, "event=start ts=2 pid=2"));
    EXPECT_EQ(read_file(path_), "event=start ts=1 pi\nevent=start ts=2 pid=2\n");
}

TEST_F(SessionHistoryTest, AFileThatCannotBeWrittenIsReported) {
    EXPECT_FALSE(append_session_line(directory_ / "missing/sessions.log", "x"));
}

TEST_F(SessionHistoryTest, AMissingFileHasNoRecords) {
    EXPECT_TRUE(read_session_history(path_, 0).empty());
    EXPECT_TRUE(read_session_history(path_, 5).empty());
}

TEST_F(SessionHistoryTest, TheNewestRecordsAreGivenOldestFirst) {
    std::string contents;
    for (int pid = 1; pid <= 5; ++pid) {
        contents += "event=start ts=1 pid=" + std::to_string(pid) + "\n";
    }
    put(contents);
    EXPECT_EQ(pids(2), (std::vector<long>{4, 5}));
    EXPECT_EQ(pids(5), (std::vector<long>{1, 2, 3, 4, 5}));
    EXPECT_EQ(pids(6), (std::vector<long>{1, 2, 3, 4, 5}));
    EXPECT_EQ(pids(0), (std::vector<long>{1, 2, 3, 4, 5}));
}

TEST_F(SessionHistoryTest, UnreadableLinesAreSkippedAndDoNotCount) {
    using namespace std::string_literals;
    put("event=start ts=1 pid=1\n\nnonsense\0\n\n"s + std::string(200'000, 'x') +
        "\nevent=start ts=1 pid=2\r\n\xff\xfe\nevent=start ts=1 pid=3");
    EXPECT_EQ(pids(2), (std::vector<long>{2, 3}));
    EXPECT_EQ(pids(3), (std::vector<long>{1, 2, 3}));
    EXPECT_EQ(pids(0), (std::vector<long>{1, 2, 3}));
}

TEST_F(SessionHistoryTest, AFileOfNewlinesHasNoRecords) {
    put(std::string(100'000, '\n'));
    EXPECT_TRUE(pids(3).empty());
    EXPECT_TRUE(pids(0).empty());
}

TEST(FindLastSession, TakesTheLastStartAndItsStop) {
    SessionRecord const start = sample_start();
    SessionRecord const stop = sample_stop();
    SessionRecord other = sample_start();
    other.pid = 7;
    SessionRecord other_stop = sample_stop();
    other_stop.pid = 7;
    std::vector<SessionRecord> const records = {other, start, other_stop, stop};

    auto const last = find_last_session(records);
    ASSERT_TRUE(last && last->stop);
    EXPECT_EQ(last->start.pid, 4242);
    EXPECT_EQ(last->stop->pid, 4242);
    auto const of_pid = find_last_session(records, 7);
    ASSERT_TRUE(of_pid && of_pid->stop);
    EXPECT_EQ(of_pid->start.pid, 7);
    EXPECT_EQ(of_pid->stop->pid, 7);
    EXPECT_FALSE(find_last_session(records, 8));
    EXPECT_FALSE(find_last_session({stop}));
}

TEST(FindLastSession, AStopBeforeTheLastStartOfThePidIsOfAnEarlierSession) {
    SessionRecord second = sample_start();
    second.ts = at(1700000061);
    auto const session = find_last_session({sample_start(), sample_stop(), second}, 4242);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->start.ts, second.ts);
    EXPECT_FALSE(session->stop);
}

} // namespace
} // namespace tessaron
