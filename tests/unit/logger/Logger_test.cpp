#include "tests/unit/logger/LoggerFixture.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <mutex>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

using test::lines_of;
using test::text_of;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using LoggerTest = test::LoggerFixture;

TEST_F(LoggerTest, WritesToTheConsoleBeforeAnyRedirect) {
    log("hello", LogLevel::WARNING);
    EXPECT_EQ(console.text(), "[" + label + "] [WARNING] [" + clock.time_stamp() + "] hello\n");
}

TEST_F(LoggerTest, StatsOnTheConsoleAreJustTheGeneration) {
    log("hello");
    LogStats const stats = logger.stats();
    EXPECT_EQ(stats.path, "");
    EXPECT_EQ(stats.line_count, 0U);
    EXPECT_EQ(stats.file_size_bytes, 0U);
    EXPECT_EQ(stats.generation, 0U);
}

TEST_F(LoggerTest, StatsCountWhatWasLoggedBeforeTheCall) {
    ASSERT_TRUE(logger.redirect_to_file(path));
    logger.log(LogLevel::INFO, "hello");
    LogStats const stats = logger.stats();
    EXPECT_EQ(stats.path, path);
    EXPECT_EQ(stats.line_count, 3U); // the announcement of the redirect, its outcome, hello
    EXPECT_EQ(stats.line_count, lines_of(path).size());
    EXPECT_EQ(stats.file_size_bytes, text_of(path).size());
}

TEST_F(LoggerTest, ReadLinesOnTheConsoleIsEmptyButAvailable) {
    log("hello");
    LogRange const range = logger.read_lines(0, 1, 0);
    EXPECT_TRUE(range.available);
    EXPECT_EQ(range.total_lines, 0U);
    EXPECT_THAT(range.lines, IsEmpty());
}

TEST_F(LoggerTest, ReadLinesSeesWhatWasLoggedBeforeTheCall) {
    ASSERT_TRUE(logger.redirect_to_file(path));
    logger.log(LogLevel::INFO, "hello");
    LogRange const range = logger.read_lines(0, 3, 3);
    EXPECT_EQ(range.total_lines, 3U);
    EXPECT_EQ(range.first_line, 3U);
    EXPECT_THAT(range.lines,
                ElementsAre("[" + label + "] [INFO] [" + clock.time_stamp() + "] hello"));
}

TEST_F(LoggerTest, VerboseEchoShowsFileLinesOnTheConsole) {
    ASSERT_TRUE(logger.redirect_to_file(path));
    log("silent");
    logger.set_verbose_console_echo(true);
    log("echoed");
    EXPECT_EQ(console.text().find("silent"), std::string::npos);
    EXPECT_TRUE(console.text().ends_with("] echoed\n"));
}

TEST_F(LoggerTest, VerboseEchoDoesNotDoubleConsoleLines) {
    logger.set_verbose_console_echo(true);
    log("once");
    EXPECT_EQ(console.text(), "[" + label + "] [INFO] [" + clock.time_stamp() + "] once\n");
}

struct SinkCall {
    std::uint64_t number;
    std::string line;
    std::uint64_t generation;
};

TEST_F(LoggerTest, LineSinkGetsNumberLineAndGeneration) {
    ASSERT_TRUE(logger.redirect_to_file(path));
    std::vector<SinkCall> calls;
    logger.flush();
    logger.register_line_sink(
        [&calls](std::uint64_t number, std::string const& line, std::uint64_t generation) {
            calls.push_back({number, line, generation});
        });
    log("hello");
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].number, 3U);
    EXPECT_EQ(calls[0].line, lines_of(path).at(2));
    EXPECT_EQ(calls[0].generation, 0U);
}

TEST_F(LoggerTest, TraceLineIsWrittenButGivesNoSinkCall) {
    std::vector<std::string> lines;
    logger.register_line_sink([&lines](std::uint64_t, std::string const& line, std::uint64_t) {
        lines.push_back(test::message_of(line));
    });
    log("trace", LogLevel::TRACE);
    log("marker");
    EXPECT_THAT(lines, ElementsAre("marker"));
    EXPECT_NE(console.text().find("] trace\n"), std::string::npos);
}

TEST_F(LoggerTest, RemovedLineSinkIsNotCalledAfterAFlush) {
    int calls = 0;
    logger.register_line_sink([&calls](auto&&...) { ++calls; });
    log("seen");
    logger.register_line_sink({});
    log("unseen");
    EXPECT_EQ(calls, 1);
}

TEST_F(LoggerTest, LineSinkMayLog) {
    logger.register_line_sink([this](std::uint64_t, std::string const& line, std::uint64_t) {
        if (line.ends_with("first")) {
            logger.log(LogLevel::INFO, "second");
        }
    });
    log("first");
    EXPECT_TRUE(console.text().ends_with("] second\n"));
}

TEST_F(LoggerTest, IncidentTriggerGetsErrorsAndNothingElse) {
    std::vector<std::string> incidents;
    logger.set_incident_trigger_sink([&incidents](LogLevel level, std::string const& message) {
        incidents.push_back(std::string(to_string(level)) + " " + message);
    });
    for (int level = 0; level <= 4; ++level) {
        logger.log(static_cast<LogLevel>(level), "level ", level);
    }
    EXPECT_THAT(incidents, ElementsAre("ERROR level 3"));
}

TEST_F(LoggerTest, IncidentTriggerGetsAnErrorBelowTheMinimumLevelToo) {
    int incidents = 0;
    logger.set_level(static_cast<LogLevel>(4));
    logger.set_incident_trigger_sink([&incidents](auto&&...) { ++incidents; });
    log("not written", LogLevel::ERROR);
    EXPECT_EQ(incidents, 1);
    EXPECT_EQ(console.text(), "");
}

TEST_F(LoggerTest, IncidentTriggerRunsOnTheLoggingThread) {
    std::thread::id where;
    logger.set_incident_trigger_sink([&where](auto&&...) { where = std::this_thread::get_id(); });
    log("error", LogLevel::ERROR);
    EXPECT_EQ(where, std::this_thread::get_id());
}

TEST_F(LoggerTest, TraceHoldsEveryMessageAlsoBelowTheMinimumLevel) {
    logger.set_level(LogLevel::ERROR);
    log("quiet", LogLevel::TRACE);
    log("loud", LogLevel::ERROR);
    auto const snapshot = logger.log_trace_snapshot();
    EXPECT_EQ(snapshot.write_index, 2U);
    EXPECT_STREQ(snapshot.entries[0].text, "quiet");
    EXPECT_EQ(snapshot.entries[0].level, LogLevel::TRACE);
    EXPECT_EQ(snapshot.entries[0].timestamp,
              static_cast<std::uint64_t>(clock.now().time_since_epoch().count()));
    EXPECT_STREQ(snapshot.entries[1].text, "loud");
}

TEST_F(LoggerTest, TraceKeepsTheLast500Messages) {
    logger.set_level(LogLevel::ERROR);
    for (int i = 0; i <= 500; ++i) {
        logger.log(LogLevel::TRACE, i);
    }
    EXPECT_EQ(logger.log_trace_raw_write_index(), 501U);
    EXPECT_STREQ(logger.log_trace_raw_entries()[0].text, "500");
    EXPECT_STREQ(logger.log_trace_raw_entries()[1].text, "1");
    EXPECT_STREQ(logger.log_trace_raw_entries()[499].text, "499");
}

/// Stands for the logger's own name on a bus.
class SelfSink final : public ILogger {
public:
    explicit SelfSink(ILogger& target)
        : ILogger("self", LogLevel::TRACE, target.clock()), target_(target) {}
    std::ostream& get_stream() override { return target_.get_stream(); }
    void log_impl(LogLevel level, std::string_view, std::string_view message) noexcept override {
        target_.log(level, "[self] ", message);
    }

private:
    ILogger& target_;
};

TEST_F(LoggerTest, OwnMessagesGoThroughTheSelfLogSink) {
    SelfSink self(logger);
    logger.register_self_log_sink(&self);
    ASSERT_TRUE(logger.redirect_to_file(path));
    logger.register_self_log_sink(nullptr);
    logger.flush();
    EXPECT_THAT(test::messages_of(path),
                ElementsAre("[self] Redirecting log output to '" + path + "'",
                            "[self] Log output redirected here from a previous destination"));
}

TEST_F(LoggerTest, SinksMayBeChangedWhileOthersLog) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        threads.emplace_back([this] {
            for (int i = 0; i < 500; ++i) {
                logger.log(LogLevel::ERROR, "hammer ", i);
            }
        });
    }
    std::atomic<int> calls{0};
    for (int i = 0; i < 200; ++i) {
        logger.register_line_sink([&calls](auto&&...) { ++calls; });
        logger.set_incident_trigger_sink([&calls](auto&&...) { ++calls; });
        logger.register_line_sink({});
        logger.set_incident_trigger_sink({});
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    logger.flush();
    EXPECT_EQ(logger.log_trace_raw_write_index(), 1'000U);
}

} // namespace
} // namespace tessaron
