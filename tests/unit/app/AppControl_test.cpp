#include "app/AppControl.hpp"

#include "TestShell.hpp"
#include "app/build_info.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace tessaron {
namespace {

using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class AppControlTest : public test::ShellFixture {
protected:
    AppControl make_control() {
        return AppControl(*context_, [this] { ++stop_requests_; });
    }

    static void write_crash(AppControl& control, int signum, siginfo_t const* info) {
        control.write_crash_record_signal_safe(signum, info, 1'700'000'000, 42);
    }

    std::string text_of(std::string const& file) const {
        return read_file(own_path(file)).value_or("");
    }

    /// A trace without what passed on the bus, where each log line passes twice.
    static std::vector<std::string> log_lines_of(std::vector<std::string> trace) {
        std::erase_if(trace, [](std::string const& line) { return !line.starts_with("[LOG "); });
        return trace;
    }

    int stop_requests_ = 0;
};

TEST_F(AppControlTest, ARebootRequestIsRememberedWithItsReasonAndStopsTheApplication) {
    AppControl control = make_control();
    EXPECT_FALSE(control.reboot_requested());
    control.request_reboot("new build");
    EXPECT_TRUE(control.reboot_requested());
    EXPECT_EQ(control.reboot_reason(), "new build");
    EXPECT_EQ(stop_requests_, 1);
    context_->logger().flush();
    EXPECT_THAT(text_of("app.log"), HasSubstr("AppControl: reboot requested (new build)\n"));
}

TEST_F(AppControlTest, ASessionIsTwoLinesThatReadBack) {
    AppControl control = make_control();
    char const* const argv[] = {"prog", "--verbose", "x y"};
    control.record_session_start(3, argv, "state=1 two");
    control.record_session_end("signal: Terminated", "state=2");
    auto const records = control.session_history(0);
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_TRUE(records[0].is_start);
    EXPECT_EQ(records[0].args, (std::vector<std::string>{"--verbose", "x y"}));
    EXPECT_EQ(records[0].runtime, "state=1 two");
    EXPECT_EQ(records[0].cwd, std::filesystem::current_path().string());
    EXPECT_EQ(records[1].reason, "signal: Terminated");
    EXPECT_EQ(records[1].runtime, "state=2");
    EXPECT_EQ(records[1].pid, ::getpid());
}

TEST_F(AppControlTest, TheStopLinesPositionIncludesTheStopMessage) {
    AppControl control = make_control();
    control.record_session_start(0, nullptr, "");
    context_->log().log(LogLevel::INFO, "one more");
    control.record_session_end("normal", "");
    auto const records = control.session_history(0);
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[1].log_line, records[0].log_line + 2);
    EXPECT_THAT(text_of("app.log"), HasSubstr("session stop: pid=" + std::to_string(::getpid()) +
                                              " duration_s=0 reason=normal\n"));
}

TEST_F(AppControlTest, ACrashRecordReadsBackWithItsBuildAndItsBacktrace) {
    AppControl control = make_control();
    siginfo_t info{};
    info.si_addr = reinterpret_cast<void*>(0xdead0);
    write_crash(control, SIGSEGV, &info);
    control.write_crash_trace_signal_safe();
    auto const records = control.crash_history(0, 0);
    ASSERT_THAT(records, SizeIs(1));
    CrashRecord const& record = records[0];
    EXPECT_EQ(record.signum, SIGSEGV);
    EXPECT_EQ(record.pid, ::getpid());
    EXPECT_EQ(record.ts, 1'700'000'000);
    EXPECT_EQ(record.ts_ms, 42);
    EXPECT_EQ(record.addr, 0xdead0U);
    EXPECT_EQ(record.detail, "");
    EXPECT_THAT(record.backtrace, Not(testing::IsEmpty()));
    EXPECT_EQ(record.version, build_stamp().version);
    EXPECT_EQ(record.build_ts, build_stamp().build_ts);
    EXPECT_EQ(record.build_machine, build_stamp().build_machine);
    EXPECT_EQ(record.build_user, build_stamp().build_user);
    EXPECT_EQ(record.commit, build_stamp().commit);
    EXPECT_EQ(record.build_type, build_stamp().build_type);
    std::string compiler = build_stamp().compiler;
    std::replace(compiler.begin(), compiler.end(), ' ', '_');
    EXPECT_EQ(record.compiler, compiler);
}

TEST_F(AppControlTest, TheHeaderThatIsWrittenIsTheOneThatIsFormatted) {
    AppControl control = make_control();
    siginfo_t info{};
    info.si_addr = reinterpret_cast<void*>(0x10);
    write_crash(control, SIGBUS, &info);
    write_crash(control, 0, nullptr);
    for (CrashRecord const& record : control.crash_history(0, 0)) {
        EXPECT_THAT(text_of("crash.log"), HasSubstr(format_crash_header_line(record) + "\n"));
    }
}

TEST_F(AppControlTest, AnUncaughtExceptionHasADetailAndNeitherAddressNorTrace) {
    AppControl control = make_control();
    write_crash(control, 0, nullptr);
    control.write_crash_detail_signal_safe("first\n=== crash === signum=9");
    auto const records = control.crash_history(0, 0);
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].signum, 0);
    EXPECT_EQ(records[0].addr, std::nullopt);
    EXPECT_EQ(records[0].detail, "first === crash === signum=9");
    EXPECT_EQ(text_of("crash.log").find("--- recent activity ---"), std::string::npos);
}

TEST_F(AppControlTest, TheTraceHoldsWhatWasLoggedOldestFirstWhateverTheLevel) {
    AppControl control = make_control();
    context_->log().log(LogLevel::TRACE, "hidden\nby the level");
    context_->log().log(LogLevel::ERROR, "seen");
    siginfo_t const info{};
    write_crash(control, SIGABRT, &info);
    control.write_crash_trace_signal_safe();
    auto const trace = crash_trace_for_record(control.crash_log_path(), ::getpid(), 1'700'000'000);
    ASSERT_TRUE(trace);
    auto const logged = log_lines_of(*trace);
    ASSERT_GE(logged.size(), 2U);
    EXPECT_THAT(logged[logged.size() - 2],
                testing::MatchesRegex("\\[LOG TRACE\\] ts=[0-9]+ \\[app\\] hidden by the level"));
    EXPECT_THAT(logged.back(), testing::MatchesRegex("\\[LOG ERROR\\] ts=[0-9]+ \\[app\\] seen"));
}

TEST_F(AppControlTest, TheTraceIsTheLast500Messages) {
    AppControl control = make_control();
    for (int number = 0; number < 777; ++number) {
        context_->log().log(LogLevel::TRACE, "message ", number);
    }
    siginfo_t const info{};
    write_crash(control, SIGABRT, &info);
    control.write_crash_trace_signal_safe();
    auto const trace = crash_trace_for_record(control.crash_log_path(), ::getpid(), 1'700'000'000);
    ASSERT_TRUE(trace);
    auto const logged = log_lines_of(*trace);
    ASSERT_THAT(logged, SizeIs(500));
    EXPECT_THAT(logged.front(), testing::EndsWith(" message 277"));
    EXPECT_THAT(logged.back(), testing::EndsWith(" message 776"));
}

TEST_F(AppControlTest, TheTraceHoldsTheBussMessagesAmongThoseOfTheLog) {
    AppControl control = make_control();
    // Those below the level are not written, so nothing of them passes on the bus; the lines of the
    // start have.
    context_->logger().flush();
    context_->logger().log(LogLevel::TRACE, "before");
    context_->hub().publish("tick", bus::Envelope{{{"n", "1"}}, {}});
    context_->logger().log(LogLevel::TRACE, "after");
    siginfo_t const info{};
    write_crash(control, SIGABRT, &info);
    control.write_crash_trace_signal_safe();
    auto const trace = crash_trace_for_record(control.crash_log_path(), ::getpid(), 1'700'000'000);
    ASSERT_TRUE(trace && trace->size() >= 3);
    auto const last = trace->end() - 3;
    EXPECT_THAT(last[0], testing::EndsWith(" before"));
    EXPECT_THAT(last[1], testing::MatchesRegex(
                             "\\[BUS EVENT TX\\] ts=[0-9]+ 200 -> 4294967295 msg_id=[0-9]+ "
                             "topic=\"tick\" data=\\[n=1\\] \\(18b\\)"));
    EXPECT_THAT(last[2], testing::EndsWith(" after"));
}

TEST_F(AppControlTest, TheStopLineOfACrashTellsNoPositionInTheLog) {
    AppControl control = make_control();
    control.record_session_start(0, nullptr, "");
    control.record_session_end_signal_safe("SIGSEGV", "two\nlines", 9);
    control.record_session_end_signal_safe("SIGABRT", nullptr, 0);
    auto const records = control.session_history(0);
    ASSERT_THAT(records, SizeIs(3));
    EXPECT_EQ(records[1].reason, "crash: signal SIGSEGV");
    EXPECT_EQ(records[1].runtime, "two lines");
    EXPECT_EQ(records[1].log_line, 0U);
    EXPECT_EQ(records[1].generation, 0U);
    EXPECT_EQ(records[2].reason, "crash: signal SIGABRT");
    EXPECT_EQ(records[2].runtime, "");
}

TEST_F(AppControlTest, ACrashBeforeTheSessionBeganLastsNoLongerThanTheProcess) {
    AppControl control = make_control();
    control.record_session_end_signal_safe("SIGSEGV", nullptr, 0);
    auto const records = control.session_history(0);
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_LT(records[0].duration_s, std::chrono::hours(1));
}

TEST_F(AppControlTest, WhereNoHistoryCanBeWrittenNothingElseFails) {
    ASSERT_TRUE(write_file(directory_ / "shell-test-blocked", "", O_TRUNC));
    ASSERT_TRUE(store_.set_field("app_dir", directory_ / "shell-test-blocked").first);
    context_.reset();
    context_.emplace(store_, 0, nullptr);
    AppControl control = make_control();
    siginfo_t const info{};
    control.record_session_start(0, nullptr, "");
    write_crash(control, SIGSEGV, &info);
    control.write_crash_detail_signal_safe("x");
    control.write_crash_trace_signal_safe();
    control.record_session_end_signal_safe("SIGSEGV", nullptr, 0);
    control.record_session_end("normal", "");
    EXPECT_THAT(control.session_history(0), testing::IsEmpty());
    EXPECT_THAT(control.crash_history(0, 0), testing::IsEmpty());
}

TEST_F(AppControlTest, AnOversizedCrashLogIsTrimmedAtTheStart) {
    std::string const record = "=== crash === signum=11 pid=1 ts=";
    std::string text;
    for (int number = 0; number < 3; ++number) {
        text += record + std::to_string(number) + "\n" + std::string(500'000, 'x') + "\n";
    }
    ASSERT_TRUE(fs_tools::make_dir_once(own_path(""), 0755));
    ASSERT_TRUE(write_file(own_path("crash.log"), text, O_TRUNC));
    AppControl const control = make_control();
    EXPECT_THAT(text_of("crash.log"), StartsWith(record + "1\n"));
    EXPECT_THAT(control.crash_history(0, 0), SizeIs(2));
}

TEST_F(AppControlTest, WithAKeepCountTheSessionHasItsArchiveAtItsEnd) {
    AppControl control = make_control();
    control.set_session_archive_keep_count(2);
    control.record_session_start(0, nullptr, "");
    context_->log().log(LogLevel::WARNING, "part of the session");
    control.record_session_end("normal", "");
    auto const start = control.session_history(0).front();
    std::string const archive = "sessions/" + detail::session_archive_dir_name(start);
    EXPECT_THAT(text_of(archive + "/session.log"), HasSubstr("part of the session\n"));
    EXPECT_THAT(text_of(archive + "/meta.txt"), HasSubstr("reason: normal\n"));
}

TEST_F(AppControlTest, WithoutAKeepCountThereIsNoArchive) {
    AppControl control = make_control();
    control.record_session_start(0, nullptr, "");
    control.record_session_end("normal", "");
    EXPECT_FALSE(std::filesystem::exists(own_path("sessions")));
}

} // namespace
} // namespace tessaron
