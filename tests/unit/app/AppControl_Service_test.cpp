#include "TestShell.hpp"
#include "app/AppControlClient.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/line_text.hpp"
#include "tests/support/bus_nodes.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

/// The control of an application, asked by a client of the same process.
class AppControlServiceTest : public test::ShellFixture {
protected:
    AppControlServiceTest() {
        asker_ = context_->hub().connect(4000, proto::bus::make_identity("asker", "test", 1));
        control_.join_bus();
    }
    ~AppControlServiceTest() override { control_.leave_bus(); }

    template <typename Reply, typename Request>
    Reply ask(std::string const& topic, Request const& request) {
        Reply none;
        none.ok = false;
        none.error = "no reply";
        return asker_->call<Reply>(context_->control_address(), topic, request, test::K_LONG)
            .value_or(none);
    }
    void write(std::string const& file, std::string const& text) {
        ASSERT_TRUE(write_file(own_path(file), text, O_TRUNC));
    }
    static std::string session_line(int number) {
        SessionRecord record;
        record.pid = number;
        record.reason = "normal";
        return format_session_stop(record) + "\n";
    }
    static std::string crash_record(int number) {
        CrashRecord record;
        record.pid = number;
        record.ts = 1000 + number;
        std::string text = format_crash_header_line(record) + "\n";
        for (int frame = 0; frame < 40; ++frame) {
            text += "frame\n";
        }
        return text + "--- recent activity ---\n[LOG INFO] ts=1 of " + std::to_string(number) +
               "\n";
    }
    template <typename Make>
    static std::string repeated(int count, Make make) {
        std::string text;
        for (int number = 1; number <= count; ++number) {
            text += make(number);
        }
        return text;
    }

    int stop_requests_ = 0;
    AppControl control_{*context_, [this] { ++stop_requests_; }};
    std::shared_ptr<bus::LocalClient> asker_;
};

TEST_F(AppControlServiceTest, ARebootIsRequestedWithItsReason) {
    EXPECT_TRUE(ask<AppControlStatusReply>("reboot", RebootRequest{"new build"}).ok);
    EXPECT_TRUE(control_.reboot_requested());
    EXPECT_EQ(control_.reboot_reason(), "bus command: new build");
    EXPECT_EQ(stop_requests_, 1);
    EXPECT_TRUE(ask<AppControlStatusReply>("reboot", RebootRequest{""}).ok);
    EXPECT_EQ(control_.reboot_reason(), "bus command (no reason given)");
}

TEST_F(AppControlServiceTest, WhatCannotBeReadIsAnsweredWithTheReason) {
    for (char const* const topic : {"reboot", "crash_test", "session_history", "crash_history",
                                    "crash_incident", "incident_history", "session_log"}) {
        auto const reply =
            asker_->request_to(context_->control_address(), topic, {1, 2, 3}, test::K_LONG);
        ASSERT_TRUE(reply) << topic;
        auto const status = AppControlStatusReply::parse(*reply);
        EXPECT_FALSE(status.ok);
        EXPECT_EQ(status.error, "Envelope: truncated or malformed") << topic;
        EXPECT_EQ(status.text, "");
    }
    EXPECT_FALSE(control_.reboot_requested());
}

TEST_F(AppControlServiceTest, TheStatusIsVersionAndSessionsAsText) {
    std::string const version = context_->version();
    std::string const head = "shell-test version " + version + "\nambrelight version " +
                             version.substr(0, version.find('-')) + "\n";
    EXPECT_EQ(ask<AppControlStatusReply>("status", RebootRequest()).text,
              head + "(no session history yet)\n");
    char const* const argv[] = {"prog", "--first", "b c"};
    control_.record_session_start(3, argv, "");
    control_.record_session_end("signal: Hangup", "");
    control_.record_session_start(0, nullptr, "");
    EXPECT_THAT(
        ask<AppControlStatusReply>("status", RebootRequest()).text,
        MatchesRegex("(.|\n)*\nLast 3 session record\\(s\\):\n"
                     "  \\[[-0-9]{10} [0-9:]{8}\\] START pid=[0-9]+ exe=[^ ]+ user=[^ ]* "
                     "args=--first\\|b c\n"
                     "  \\[[-0-9]{10} [0-9:]{8}\\] STOP  pid=[0-9]+ duration=[0-9]+s "
                     "reason=signal: Hangup\n"
                     "  \\[[-0-9]{10} [0-9:]{8}\\] START pid=[0-9]+ exe=[^ ]+ user=[^ ]*\n"));
}

TEST_F(AppControlServiceTest, TheStatusHasTheLastTenSessions) {
    ASSERT_NO_FATAL_FAILURE(write("sessions.log", repeated(25, session_line)));
    auto const text = ask<AppControlStatusReply>("status", RebootRequest()).text;
    EXPECT_THAT(text, HasSubstr("Last 10 session record(s):\n"));
    EXPECT_THAT(text, HasSubstr("STOP  pid=16 "));
    EXPECT_THAT(text, testing::Not(HasSubstr("STOP  pid=15 ")));
}

TEST_F(AppControlServiceTest, NoMoreThan200SessionsAreTold) {
    ASSERT_NO_FATAL_FAILURE(write("sessions.log", repeated(300, session_line)));
    struct Case {
        std::uint64_t asked;
        std::size_t told;
    };
    for (auto const& [asked, told] : {Case{1, 1}, Case{199, 199}, Case{200, 200}, Case{201, 200},
                                      Case{500, 200}, Case{0, 200}, Case{UINT64_MAX, 200}}) {
        auto const reply =
            ask<SessionHistoryReply>("session_history", SessionHistoryRequest{asked});
        ASSERT_THAT(reply.records, SizeIs(told));
        EXPECT_EQ(reply.records.back().pid, 300);
        EXPECT_EQ(reply.records.front().pid, 301 - static_cast<long>(told));
    }
}

TEST_F(AppControlServiceTest, NoMoreThan100CrashesAreToldEachWith32Frames) {
    ASSERT_NO_FATAL_FAILURE(write("crash.log", repeated(120, crash_record)));
    auto const pids = [this](std::uint64_t max, std::uint64_t skip) {
        auto const reply = ask<CrashHistoryReply>("crash_history", CrashHistoryRequest{max, skip});
        return reply.records.empty()
                   ? std::pair(0L, 0L)
                   : std::pair(reply.records.front().pid, reply.records.back().pid);
    };
    EXPECT_EQ(pids(0, 0), std::pair(21L, 120L));
    EXPECT_EQ(pids(101, 0), std::pair(21L, 120L));
    EXPECT_EQ(pids(100, 0), std::pair(21L, 120L));
    EXPECT_EQ(pids(2, 0), std::pair(119L, 120L));
    EXPECT_EQ(pids(2, 10), std::pair(109L, 110L));
    EXPECT_EQ(pids(0, 100), std::pair(1L, 20L));
    EXPECT_EQ(pids(5, 120), std::pair(0L, 0L));
    EXPECT_EQ(pids(5, UINT64_MAX), std::pair(0L, 0L));
    auto const one = ask<CrashHistoryReply>("crash_history", CrashHistoryRequest{1, 0});
    ASSERT_THAT(one.records, SizeIs(1));
    EXPECT_THAT(one.records[0].backtrace, SizeIs(32));
}

TEST_F(AppControlServiceTest, TheTraceOfOneCrashIsToldOrThatThereIsNone) {
    ASSERT_NO_FATAL_FAILURE(write("crash.log", repeated(3, crash_record)));
    auto const reply = ask<CrashIncidentReply>("crash_incident", CrashIncidentRequest{2, 1002});
    EXPECT_TRUE(reply.ok);
    EXPECT_THAT(reply.lines, ElementsAre("[LOG INFO] ts=1 of 2"));
    auto const none = ask<CrashIncidentReply>("crash_incident", CrashIncidentRequest{2, 1003});
    EXPECT_FALSE(none.ok);
    EXPECT_EQ(none.error, "crash record not found (pid 2, ts 1003)");
}

TEST_F(AppControlServiceTest, IncidentsAreToldOldestFirstAndNoMoreThan100) {
    EXPECT_THAT(ask<IncidentHistoryReply>("incident_history", IncidentHistoryRequest{0}).records,
                IsEmpty());
    ASSERT_TRUE(fs_tools::make_dir_once(context_->incident_dir(), 0755));
    for (int number = 101; number <= 220; ++number) {
        std::string const text = std::to_string(number);
        ASSERT_NO_FATAL_FAILURE(write("incidents/incident-1700000000" + text + ".txt",
                                      "pid: " + text + "\nts: 1\ntriggered by: [ERROR] m\n"));
    }
    auto const all = ask<IncidentHistoryReply>("incident_history", IncidentHistoryRequest{0});
    ASSERT_THAT(all.records, SizeIs(100));
    EXPECT_EQ(all.records.front().pid, 121);
    EXPECT_THAT(ask<IncidentHistoryReply>("incident_history", IncidentHistoryRequest{1}).records,
                ElementsAre(IncidentRecord{220, 1, "ERROR", "m"}));
    EXPECT_THAT(ask<IncidentHistoryReply>("incident_history", IncidentHistoryRequest{101}).records,
                SizeIs(100));
}

TEST_F(AppControlServiceTest, ASessionsLogIsItsLinesWhichCanBePaged) {
    control_.record_session_start(0, nullptr, "");
    for (int number = 1; number <= 5; ++number) {
        context_->log().log(LogLevel::INFO, "line ", number);
    }
    control_.record_session_end("normal", "");
    context_->log().log(LogLevel::INFO, "behind it");
    auto const whole = ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 0, 0, 0});
    ASSERT_TRUE(whole.ok) << whole.error;
    EXPECT_EQ(whole.error, "");
    // The line that the start stands at, those of the session, and its stop.
    ASSERT_THAT(whole.lines, SizeIs(7));
    EXPECT_THAT(whole.lines[5], testing::EndsWith("[app] line 5"));
    EXPECT_THAT(whole.lines[6], HasSubstr("session stop: pid="));
    EXPECT_EQ(whole.from_line, 1U);
    EXPECT_EQ(whole.total_lines, 7U);
    EXPECT_EQ(whole.session_to_line, whole.session_from_line + 6);
    auto const earlier =
        ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 0, 0, 4});
    ASSERT_THAT(earlier.lines, SizeIs(3));
    EXPECT_THAT(earlier.lines[2], testing::EndsWith("[app] line 2"));
    EXPECT_EQ(earlier.total_lines, 7U);
    auto const none = ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 0, 0, 99});
    EXPECT_THAT(none.lines, IsEmpty());
    EXPECT_EQ(none.from_line, 0U);
}

TEST_F(AppControlServiceTest, OfSeveralSessionsOfAProcessOneMayBeMeant) {
    control_.record_session_start(0, nullptr, "");
    context_->log().log(LogLevel::INFO, "of the first");
    control_.record_session_end("reboot", "");
    control_.record_session_start(0, nullptr, "");
    context_->log().log(LogLevel::INFO, "of the second");
    auto const start = control_.session_history(0).front();
    auto const first = ask<SessionLogReply>(
        "session_log", SessionLogRequest{::getpid(), start.log_line, start.generation, 0});
    EXPECT_THAT(join(first.lines, '\n'), HasSubstr("of the first"));
    EXPECT_THAT(join(first.lines, '\n'), testing::Not(HasSubstr("of the second")));
    auto const last = ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 0, 0, 0});
    EXPECT_THAT(join(last.lines, '\n'), HasSubstr("of the second"));
    EXPECT_EQ(ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 999, 0, 0}).error,
              "session not found (pid " + std::to_string(::getpid()) + ")");
}

TEST_F(AppControlServiceTest, ASessionThatIsUnknownOrTellsNoPlaceHasNoLog) {
    EXPECT_EQ(ask<SessionLogReply>("session_log", SessionLogRequest{12, 0, 0, 0}).error,
              "session not found (pid 12)");
    SessionRecord record;
    record.is_start = true;
    record.pid = 12;
    ASSERT_NO_FATAL_FAILURE(write("sessions.log", format_session_start(record) + "\n"));
    EXPECT_EQ(ask<SessionLogReply>("session_log", SessionLogRequest{12, 0, 0, 0}).error,
              "no log range recorded for this session");
}

TEST_F(AppControlServiceTest, ALogThatIsGoneInPartIsToldSo) {
    context_->logger().set_kept_generations(1);
    control_.record_session_start(0, nullptr, "");
    context_->logger().set_max_file_size(1);
    for (int number = 0; number < 4; ++number) {
        context_->logger().log(LogLevel::INFO, "rotates");
        context_->logger().flush();
    }
    context_->logger().set_max_file_size(0);
    control_.record_session_end("normal", "");
    auto const reply = ask<SessionLogReply>("session_log", SessionLogRequest{::getpid(), 0, 0, 0});
    EXPECT_TRUE(reply.ok);
    EXPECT_THAT(reply.error, MatchesRegex("partial log - generation 0 no longer retained(; "
                                          "generation [0-9]+ no longer retained)*"));
    EXPECT_THAT(reply.lines, testing::Not(IsEmpty()));
}

TEST_F(AppControlServiceTest, ACrashTestIsToldInTheHistoryAsOne) {
    control_.request_crash_test("by hand");
    // Before the crash comes, which is over with the object.
    control_.record_session_end_signal_safe("SIGABRT", nullptr, 0);
    EXPECT_EQ(control_.session_history(0).back().reason, "crash: manual test - signal SIGABRT");
    context_->logger().flush();
    EXPECT_THAT(read_file(own_path("app.log")).value_or(""),
                HasSubstr("[app] AppControl: crash test requested (by hand) - crashing via SIGABRT "
                          "in 200ms\n"));
}

TEST_F(AppControlServiceTest, FurtherTopicsAreServedOnTheSameNode) {
    control_.serve_control_topic(
        "twice",
        [](Bytes const& request) {
            Bytes twice = request;
            twice.insert(twice.end(), request.begin(), request.end());
            return twice;
        },
        "");
    control_.serve_control_topic(
        "never", [](Bytes const&) -> Bytes { throw std::runtime_error("not today"); }, "");
    auto const address = context_->control_address();
    EXPECT_EQ(asker_->request_to(address, "twice", {1, 2}, test::K_LONG), (Bytes{1, 2, 1, 2}));
    auto const reply = asker_->request_to(address, "never", {}, test::K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_EQ(AppControlStatusReply::parse(*reply).error, "not today");
}

TEST_F(AppControlServiceTest, OffTheBusNobodyAnswers) {
    control_.leave_bus();
    EXPECT_EQ(asker_->request_to(context_->control_address(), "status", {},
                                 std::chrono::milliseconds(50)),
              std::nullopt);
}

} // namespace
} // namespace tessaron
