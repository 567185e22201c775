#include "logger/AsyncOstreamLogger.hpp"

#include "tests/support/CapturedStream.hpp"
#include "tests/support/FakeTimeProvider.hpp"

#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

using test::CapturedStream;
using test::FakeTimeProvider;

struct Async : testing::Test {
    FakeTimeProvider clock;
    std::ostringstream stream;
};

TEST_F(Async, LineHasLabelLevelTimeStampAndMessage) {
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    logger.log(LogLevel::INFO, "Redirecting to '", "/x", "'");
    logger.log(static_cast<LogLevel>(9), "odd");
    logger.log(LogLevel::TRACE, "");
    logger.flush();
    std::string const stamp = clock.time_stamp();
    EXPECT_EQ(stream.str(), "[mirel] [INFO] [" + stamp + "] Redirecting to '/x'\n" +
                                "[mirel] [UNKNOWN] [" + stamp + "] odd\n" + "[mirel] [TRACE] [" +
                                stamp + "] \n");
}

TEST_F(Async, GetStreamIsTheStreamGiven) {
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    EXPECT_EQ(&logger.get_stream(), &stream);
}

TEST_F(Async, FlushOfAnIdleLoggerReturns) {
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    logger.flush();
    logger.flush();
    EXPECT_EQ(stream.str(), "");
}

TEST_F(Async, StopWritesEverythingQueued) {
    constexpr int K_LINES = 20'000;
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    for (int i = 0; i < K_LINES; ++i) {
        logger.log(LogLevel::INFO, i);
    }
    logger.stop_async();
    std::string const text = stream.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), K_LINES);
}

TEST_F(Async, LineLoggedAfterStopIsDroppedAndNobodyWaitsForIt) {
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    logger.stop_async();
    logger.log(LogLevel::INFO, "late");
    logger.flush();
    logger.stop_async();
    EXPECT_EQ(stream.str(), "");
}

TEST_F(Async, LinesOfOneThreadStayInOrderAmongThoseOfOthers) {
    constexpr int K_THREADS = 4;
    constexpr int K_LINES = 2'000;
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < K_THREADS; ++thread) {
        threads.emplace_back([&logger, thread] {
            for (int i = 0; i < K_LINES; ++i) {
                logger.log(LogLevel::INFO, "t ", thread, " ", i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    logger.flush();

    std::map<int, int> next;
    std::istringstream lines(stream.str());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(line.rfind("t ") + 2));
        int thread = -1;
        int number = -1;
        words >> thread >> number;
        ASSERT_EQ(number, next[thread]) << line;
        ++next[thread];
    }
    for (int thread = 0; thread < K_THREADS; ++thread) {
        EXPECT_EQ(next[thread], K_LINES);
    }
}

TEST_F(Async, FailedStreamLosesItsLinesAndSaysSo) {
    CapturedStream errors(std::cerr);
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, stream);
    stream.setstate(std::ios::failbit);
    logger.log(LogLevel::INFO, "lost");
    logger.flush();
    stream.clear();
    logger.log(LogLevel::INFO, "kept");
    logger.flush();
    EXPECT_EQ(errors.text(), "Логгер mirel в ошибочном состоянии.\n");
    EXPECT_EQ(stream.str(), "[mirel] [INFO] [" + clock.time_stamp() + "] kept\n");
}

TEST_F(Async, StreamWithoutBufferEndsTheWriterAndHoldsNobodyUp) {
    CapturedStream errors(std::cerr);
    std::ostream nowhere(nullptr);
    AsyncOstreamLogger logger("mirel", LogLevel::TRACE, clock, nowhere);
    logger.log(LogLevel::INFO, "first");
    logger.log(LogLevel::INFO, "second");
    logger.flush();
    logger.log(LogLevel::INFO, "third");
    logger.flush();
    logger.stop_async();
    EXPECT_EQ(errors.text(), "Логгер mirel больше недоступен (null rdbuf).\n");
}

/// Takes its time over each line, and throws when told to.
class SlowReporter final : public AsyncOstreamLogger {
public:
    using AsyncOstreamLogger::AsyncOstreamLogger;
    ~SlowReporter() override { stop_async(); }

    void on_line_written(LogLevel level, std::string const& line) override {
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
        }
        if (level == LogLevel::ERROR) {
            throw std::runtime_error("sink");
        }
        reported.push_back(line);
    }

    std::vector<std::string> reported;
};

TEST_F(Async, FlushWaitsUntilTheLastLineHasBeenReported) {
    SlowReporter logger("mirel", LogLevel::TRACE, clock, stream);
    for (std::size_t i = 1; i <= 300; ++i) {
        logger.log(LogLevel::INFO, i);
        logger.flush();
        ASSERT_EQ(logger.reported.size(), i);
    }
}

TEST_F(Async, LineIsReportedWithoutItsNewline) {
    SlowReporter logger("mirel", LogLevel::TRACE, clock, stream);
    logger.log(LogLevel::INFO, "x");
    logger.flush();
    EXPECT_EQ(logger.reported.at(0) + "\n", stream.str());
}

TEST_F(Async, ThrowingReportDoesNotEndTheWriter) {
    CapturedStream errors(std::cerr);
    SlowReporter logger("mirel", LogLevel::TRACE, clock, stream);
    logger.log(LogLevel::ERROR, "throws");
    logger.log(LogLevel::INFO, "goes on");
    logger.flush();
    EXPECT_EQ(logger.reported.size(), 1U);
    EXPECT_EQ(errors.text(), "mirel: a log sink failed: sink\n");
}

} // namespace
} // namespace tessaron
