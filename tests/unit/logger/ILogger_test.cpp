#include "logger/ILogger.hpp"
#include "tests/support/FakeTimeProvider.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {
namespace {

using test::FakeTimeProvider;
using testing::ElementsAre;

/// Remembers what the base class hands on.
class RecordingLogger final : public ILogger {
public:
    RecordingLogger(LogLevel level, ITimeProvider const& clock) : ILogger("label", level, clock) {}

    std::ostream& get_stream() override { return stream_; }
    void log_impl(LogLevel level, std::string_view time_stamp,
                  std::string_view message) noexcept override {
        logged.push_back(std::string(to_string(level))
                             .append(" ")
                             .append(time_stamp)
                             .append(" ")
                             .append(message));
    }
    void on_log_call(LogLevel, std::string_view message,
                     ITimeProvider::TimePoint time) noexcept override {
        called.emplace_back(message);
        called_at = time;
    }

    std::vector<std::string> logged;
    std::vector<std::string> called;
    ITimeProvider::TimePoint called_at;

private:
    std::ostringstream stream_;
};

enum Plain { FIRST = 41, SECOND };

template <typename... Args>
std::string message_from(Args const&... args) {
    FakeTimeProvider clock;
    RecordingLogger logger(LogLevel::TRACE, clock);
    logger.log(LogLevel::INFO, args...);
    return logger.called.at(0);
}

template <typename... Args>
void expect_as_streamed(Args const&... args) {
    std::ostringstream stream;
    (stream << ... << args);
    EXPECT_EQ(message_from(args...), stream.str());
}

TEST(ILogger, ArgumentsAreJoinedWithoutSeparators) {
    EXPECT_EQ(message_from("pid=", 12, " ok=", true, ' ', std::string("end")), "pid=12 ok=1 end");
    EXPECT_EQ(message_from(), "");
}

TEST(ILogger, EveryKindOfArgumentReadsAsOnAStream) {
    char const* const pointer = "pointer";
    char text[] = "array";
    char* const writable = text;
    expect_as_streamed(pointer, text, writable, std::string_view("view"), std::string("string"));
    expect_as_streamed('c', static_cast<signed char>('s'), static_cast<unsigned char>('u'));
    expect_as_streamed(true, false);
    expect_as_streamed(std::numeric_limits<long long>::min(), " ",
                       std::numeric_limits<unsigned long long>::max());
    expect_as_streamed(short{-5}, " ", static_cast<unsigned short>(65535), " ", -1, " ", 7U, " ",
                       -8L, " ", 9UL);
    expect_as_streamed(0.1, " ", 1e30F, " ", SECOND);
}

TEST(ILogger, ArrayEndsAtItsNul) {
    char const text[] = "seen\0hidden";
    EXPECT_EQ(message_from(text), "seen");
}

TEST(ILogger, ManipulatorActsOnTheArgumentsBehindIt) {
    EXPECT_EQ(message_from("0x", std::hex, 255, " ", 16), "0xff 10");
    EXPECT_EQ(message_from(std::boolalpha, true, std::setw(5), std::setfill('.'), 7), "true....7");
}

TEST(ILogger, NullTextIsEmpty) {
    char const* const none = nullptr;
    EXPECT_EQ(message_from("a", none, "b"), "ab");
}

TEST(ILogger, MessageGetsTheClocksTimeStamp) {
    FakeTimeProvider clock;
    RecordingLogger logger(LogLevel::INFO, clock);
    logger.log(LogLevel::WARNING, "hello");
    EXPECT_THAT(logger.logged, ElementsAre("WARNING " + clock.time_stamp() + " hello"));
}

TEST(ILogger, OnLogCallSeesEveryLevelAndLogImplOnlyTheWanted) {
    FakeTimeProvider clock;
    RecordingLogger logger(LogLevel::WARNING, clock);
    logger.log(LogLevel::TRACE, "t");
    logger.log(LogLevel::INFO, "i");
    logger.log(LogLevel::WARNING, "w");
    logger.log(LogLevel::ERROR, "e");
    EXPECT_THAT(logger.called, ElementsAre("t", "i", "w", "e"));
    EXPECT_EQ(logger.logged.size(), 2U);
}

TEST(ILogger, ClockIsLookedAtOnceForAMessage) {
    FakeTimeProvider clock;
    RecordingLogger logger(LogLevel::WARNING, clock);
    logger.log(LogLevel::WARNING, "loud");
    EXPECT_EQ(clock.reads(), 1);
    EXPECT_EQ(logger.called_at, clock.now());
}

TEST(ILogger, SetLevelActsOnTheNextMessage) {
    FakeTimeProvider clock;
    RecordingLogger logger(LogLevel::ERROR, clock);
    logger.log(LogLevel::INFO, "dropped");
    logger.set_level(LogLevel::TRACE);
    EXPECT_EQ(logger.get_level(), LogLevel::TRACE);
    logger.log(LogLevel::TRACE, "kept");
    EXPECT_THAT(logger.logged, ElementsAre("TRACE " + clock.time_stamp() + " kept"));
}

TEST(ILogger, KnowsItsLabelAndItsClock) {
    FakeTimeProvider clock;
    RecordingLogger const logger(LogLevel::ERROR, clock);
    EXPECT_EQ(logger.get_label(), "label");
    EXPECT_EQ(&logger.clock(), &clock);
}

TEST(LogLevel, HasTheNamesOfTheLineFormat) {
    EXPECT_EQ(to_string(static_cast<LogLevel>(0)), "TRACE");
    EXPECT_EQ(to_string(static_cast<LogLevel>(1)), "INFO");
    EXPECT_EQ(to_string(static_cast<LogLevel>(2)), "WARNING");
    EXPECT_EQ(to_string(static_cast<LogLevel>(3)), "ERROR");
    EXPECT_EQ(to_string(static_cast<LogLevel>(4)), "UNKNOWN");
    EXPECT_EQ(to_string(static_cast<LogLevel>(255)), "UNKNOWN");
}

} // namespace
} // namespace tessaron
