#include "app/incident_report.hpp"

#include "TestShell.hpp"
#include "app/incident_history.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tests/support/FakeTimeProvider.hpp"
#include "tests/support/bus_nodes.hpp"

#include <atomic>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>

namespace tessaron {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr char K_ACTIVITY[] =
    "\n=== recent activity (logs + bus traffic, merged by time, regardless of active log level) "
    "===\n";

class IncidentReports : public testing::Test {
protected:
    std::vector<std::string> reports() const { return list_incident_reports(incident_dir_); }
    std::string newest() const {
        auto const paths = reports();
        return paths.empty() ? "" : read_file(paths.back()).value_or("");
    }
    /// What stands behind the header of the merged trace.
    std::string activity() const {
        std::string const text = newest();
        auto const begin = text.find(K_ACTIVITY);
        return begin == std::string::npos ? "(no header)"
                                          : text.substr(begin + sizeof K_ACTIVITY - 1);
    }

    test::TemporaryDirectory directory_;
    std::string const incident_dir_ = directory_ / "incidents";
    test::FakeTimeProvider clock_;
    std::atomic<milliseconds::rep> steady_{1'000'000};
    Logger logger_{"incident-test", LogLevel::ERROR, clock_};
    test::FrameBuffers buffers_;
    bus::Hub hub_{buffers_.rx_span(), buffers_.tx_span(), 200,
                  proto::bus::make_identity("node", "incident-test", 1), test::hub_settings()};
    IncidentReporter reporter_{{"app", "1.2.3-x", incident_dir_}, logger_, hub_, clock_, [this] {
                                   return IncidentReporter::SteadyTime(
                                       milliseconds(steady_.load()));
                               }};
};

TEST_F(IncidentReports, StandInAFileNamedByItsTime) {
    clock_.set(ITimeProvider::TimePoint(milliseconds(1'700'000'123'456)));
    reporter_.maybe_report(LogLevel::ERROR, "disk is full");
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(reports()[0], EndsWith("/incidents/incident-1700000123456.txt"));
    EXPECT_EQ(parse_incident_report_file(reports()[0]),
              (IncidentRecord{::getpid(), 1'700'000'123, "ERROR", "disk is full"}));
}

TEST_F(IncidentReports, HaveTheirPartsInOrder) {
    logger_.log(LogLevel::INFO, "before");
    reporter_.set_extra_content_provider([] { return "state=1"; });
    reporter_.maybe_report(LogLevel::ERROR, "disk is full");
    std::string const text = newest();
    EXPECT_THAT(text, StartsWith("=== incident report ===\napp: app 1.2.3-x\npid: " +
                                 std::to_string(::getpid()) +
                                 "\nts: 1700000000\ntriggered by: [ERROR] disk is full\n\n"
                                 "Backtrace:\n"));
    EXPECT_THAT(text, EndsWith(std::string("]\n") + K_ACTIVITY +
                               "[LOG INFO] ts=1700000000000000 before\n"
                               "\n=== runtime state ===\nstate=1\n"));
}

TEST_F(IncidentReports, HaveABacktraceOf32FramesAtMost) {
    std::function<void(int)> const descend = [&](int depth) {
        depth == 0 ? reporter_.write_report(LogLevel::ERROR, "deep") : descend(depth - 1);
    };
    descend(40);
    std::string const text = newest();
    auto const begin = text.find("Backtrace:\n") + 11;
    std::string const frames = text.substr(begin, text.find(K_ACTIVITY) - begin);
    EXPECT_EQ(std::count(frames.begin(), frames.end(), '\n'), 32);
    EXPECT_THAT(frames, HasSubstr("app_test"));
}

TEST_F(IncidentReports, WithoutBusTrafficHoldLogLinesAlone) {
    logger_.log(LogLevel::INFO, "one");
    reporter_.maybe_report(LogLevel::ERROR, "x");
    EXPECT_EQ(activity(), "[LOG INFO] ts=1700000000000000 one\n");
}

TEST_F(IncidentReports, WithoutAnyActivityHaveTheHeaderAllTheSame) {
    reporter_.maybe_report(LogLevel::ERROR, "x");
    EXPECT_EQ(activity(), "");
}

TEST_F(IncidentReports, HoldWhatTheLogsLevelHides) {
    logger_.log(LogLevel::TRACE, "fine detail");
    logger_.log(LogLevel::INFO, "life event");
    reporter_.maybe_report(LogLevel::ERROR, "x");
    EXPECT_EQ(activity(), "[LOG TRACE] ts=1700000000000000 fine detail\n"
                          "[LOG INFO] ts=1700000000000000 life event\n");
}

TEST_F(IncidentReports, MergeTheMessagesOfTheBus) {
    logger_.log(LogLevel::INFO, "long ago");
    hub_.record_bus_trace('T', proto::bus::MessageType::EVENT, 200, 0xFFFFFFFF, 5,
                          bus::encode_envelope({{{"free", "12"}}, {}}), "disk.state");
    clock_.set(ITimeProvider::TimePoint(std::chrono::hours(24 * 365 * 200)));
    logger_.log(LogLevel::INFO, "far from now");
    reporter_.maybe_report(LogLevel::ERROR, "x");
    EXPECT_THAT(activity(), MatchesRegex("\\[LOG INFO\\] ts=[0-9]+ long ago\n"
                                         "\\[BUS EVENT TX\\] ts=[0-9]+ 200 -> 4294967295 msg_id=5 "
                                         "topic=\"disk.state\" data=\\[free=12\\] \\(22b\\)\n"
                                         "\\[LOG INFO\\] ts=[0-9]+ far from now\n"));
}

TEST_F(IncidentReports, WithinThirtySecondsThereIsOne) {
    reporter_.maybe_report(LogLevel::ERROR, "first");
    clock_.advance(milliseconds(29'999));
    steady_ += 29'999;
    reporter_.maybe_report(LogLevel::ERROR, "too early");
    ASSERT_THAT(reports(), SizeIs(1));
    clock_.advance(milliseconds(1));
    steady_ += 1;
    reporter_.maybe_report(LogLevel::ERROR, "at thirty seconds");
    ASSERT_THAT(reports(), SizeIs(2));
    EXPECT_THAT(newest(), HasSubstr("triggered by: [ERROR] at thirty seconds\n"));
}

TEST_F(IncidentReports, OneThatFailsUsesUpItsInterval) {
    ASSERT_TRUE(write_file(incident_dir_, "in the way", 0));
    reporter_.maybe_report(LogLevel::ERROR, "lost");
    ::unlink(incident_dir_.c_str());
    steady_ += 29'999;
    reporter_.maybe_report(LogLevel::ERROR, "too early");
    EXPECT_THAT(reports(), IsEmpty());
    steady_ += 1;
    reporter_.maybe_report(LogLevel::ERROR, "written");
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(IncidentReports, AnErrorThatWritingOneCausesLeadsToNoSecondOne) {
    logger_.set_incident_trigger_sink([this](LogLevel level, std::string const& message) {
        reporter_.maybe_report(level, message);
    });
    reporter_.set_extra_content_provider([this] {
        logger_.log(LogLevel::ERROR, "the provider is unhappy");
        return "state";
    });
    logger_.log(LogLevel::ERROR, "disk is full");
    logger_.set_incident_trigger_sink({});
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(newest(), HasSubstr("triggered by: [ERROR] disk is full\n"));
}

TEST_F(IncidentReports, The21stLeavesTheTwentyNewest) {
    for (int i = 0; i < 21; ++i) {
        clock_.advance(milliseconds(1));
        reporter_.write_report(LogLevel::ERROR, std::to_string(i));
        EXPECT_THAT(reports(), SizeIs(std::min(i + 1, 20)));
    }
    auto const records = read_incident_history(incident_dir_, 0);
    EXPECT_EQ(records.front().message, "1");
    EXPECT_EQ(records.back().message, "20");
}

TEST_F(IncidentReports, WhatIsNoReportIsNotPruned) {
    ASSERT_TRUE(fs_tools::make_dir_once(incident_dir_, 0755));
    std::string const note = fs_tools::join_path(incident_dir_, "incident-0.log");
    ASSERT_TRUE(write_file(note, "mine", 0));
    for (int i = 0; i < 22; ++i) {
        clock_.advance(milliseconds(1));
        reporter_.write_report(LogLevel::ERROR, "x");
    }
    EXPECT_TRUE(fs_tools::is_reg(note));
}

TEST_F(IncidentReports, AnEmptyRuntimeStateLeavesItsPartOut) {
    reporter_.set_extra_content_provider([] { return std::string(); });
    reporter_.write_report(LogLevel::ERROR, "x");
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(newest(), Not(HasSubstr("runtime state")));
    reporter_.set_extra_content_provider([] { return "state"; });
    reporter_.set_extra_content_provider({});
    clock_.advance(milliseconds(1));
    reporter_.write_report(LogLevel::ERROR, "x");
    ASSERT_THAT(reports(), SizeIs(2));
    EXPECT_THAT(newest(), Not(HasSubstr("runtime state")));
}

TEST_F(IncidentReports, AProviderThatThrowsCostsTheReportAndNothingElse) {
    reporter_.set_extra_content_provider(
        []() -> std::string { throw std::runtime_error("no state"); });
    reporter_.write_report(LogLevel::ERROR, "x");
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(IncidentReports, AMessageOfSeveralLinesIsOneLineOfTheSummary) {
    reporter_.write_report(LogLevel::ERROR, "first\npid: 1\r\nlast");
    EXPECT_EQ(read_incident_history(incident_dir_, 1).at(0).message, "first pid: 1  last");
}

TEST_F(IncidentReports, ManyThreadsAtOnceGetOne) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this, i] {
            clock_.advance(milliseconds(1));
            reporter_.maybe_report(LogLevel::ERROR, std::to_string(i));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(IncidentReports, AreWrittenFromTheLogsOwnThreadToo) {
    std::atomic<bool> tripped{false};
    logger_.set_level(LogLevel::INFO);
    logger_.set_incident_trigger_sink([this](LogLevel level, std::string const& message) {
        reporter_.maybe_report(level, message);
    });
    logger_.register_line_sink([&](std::uint64_t, std::string const&, std::uint64_t) {
        if (!tripped.exchange(true)) {
            logger_.log(LogLevel::ERROR, "from the line sink");
        }
    });
    logger_.log(LogLevel::INFO, "a line");
    logger_.flush();
    logger_.register_line_sink({});
    logger_.set_incident_trigger_sink({});
    logger_.flush();
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(newest(), HasSubstr("triggered by: [ERROR] from the line sink\n"));
}

TEST_F(IncidentReports, AreWrittenWhenTheLogItselfFails) {
    logger_.set_incident_trigger_sink([this](LogLevel level, std::string const& message) {
        reporter_.maybe_report(level, message);
    });
    logger_.flush();
    logger_.get_stream().setstate(std::ios::badbit);
    logger_.log(LogLevel::ERROR, "nobody reads this");
    logger_.set_incident_trigger_sink({});
    EXPECT_THAT(newest(), HasSubstr("[LOG ERROR] ts=1700000000000000 nobody reads this\n"));
}

class IncidentsOfAnApplication : public test::ShellFixture {
protected:
    IncidentsOfAnApplication() { fs_tools::make_dir_once(directory_ / "shell-test", 0755); }
};

TEST_F(IncidentsOfAnApplication, AnErrorLeavesAReportWithLogAndBusLines) {
    context_->log().log(LogLevel::TRACE, "hidden by the level");
    context_->hub().publish("tick", bus::Envelope{{{"n", "1"}}, {}});
    context_->log().log(LogLevel::ERROR, "disk ", 7, " is full");
    context_->log().log(LogLevel::ERROR, "once more");
    auto const paths = list_incident_reports(context_->incident_dir());
    ASSERT_THAT(paths, SizeIs(1));
    std::string const text = read_file(paths[0]).value_or("");
    EXPECT_THAT(text, HasSubstr("app: shell-test " + context_->version() + "\n"));
    EXPECT_THAT(text, HasSubstr("triggered by: [ERROR] [app] disk 7 is full\n"));
    EXPECT_THAT(text, HasSubstr("[LOG TRACE] ts="));
    EXPECT_THAT(text, HasSubstr("-> 4294967295 msg_id="));
    EXPECT_THAT(text, HasSubstr("topic=\"tick\" data=[n=1] (18b)\n"));
    EXPECT_THAT(text, HasSubstr(" [app] disk 7 is full\n"));
}

TEST_F(IncidentsOfAnApplication, WithoutADirectoryForThemItGoesOn) {
    std::filesystem::remove_all(directory_ / "shell-test");
    context_->log().log(LogLevel::ERROR, "nowhere to report to");
    EXPECT_THAT(list_incident_reports(context_->incident_dir()), IsEmpty());
}

TEST_F(IncidentsOfAnApplication, TheRuntimeStateIsThatOfTheProvider) {
    context_->set_extra_incident_content_provider([] { return "state=2"; });
    context_->write_incident_report(LogLevel::ERROR, "x");
    context_->set_extra_incident_content_provider({});
    auto const paths = list_incident_reports(context_->incident_dir());
    ASSERT_THAT(paths, SizeIs(1));
    EXPECT_THAT(read_file(paths[0]).value_or(""), EndsWith("\n=== runtime state ===\nstate=2\n"));
}

} // namespace
} // namespace tessaron
