#include "app/session_log_range.hpp"

#include "app/crash_history.hpp"
#include "tests/unit/logger/LoggerFixture.hpp"

#include <chrono>

namespace tessaron {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Texts = std::vector<std::string>;

constexpr long K_PID = 4242;

class SessionLogTest : public test::LoggerFixture {
protected:
    SessionLogTest() { EXPECT_TRUE(logger.redirect_to_file(path)); }

    std::int64_t now_ms() const {
        return std::chrono::floor<milliseconds>(clock.now().time_since_epoch()).count();
    }
    SessionRecord start_now() {
        SessionRecord record = stop_now("");
        record.is_start = true;
        return record;
    }
    SessionRecord stop_now(std::string const& reason) {
        LogStats const stats = logger.stats();
        SessionRecord record;
        record.ts = std::chrono::floor<seconds>(clock.now());
        record.pid = K_PID;
        record.log_line = stats.line_count;
        record.generation = stats.generation;
        record.reason = reason;
        return record;
    }
    /// As the crash handler writes it.
    SessionRecord crash_stop_now() {
        SessionRecord record = stop_now("crash: signal SIGSEGV");
        record.log_line = record.generation = 0;
        return record;
    }
    void record_crash_now() {
        CrashRecord crash;
        crash.pid = K_PID;
        crash.ts = now_ms() / 1000;
        crash.ts_ms = now_ms() % 1000;
        test::put_file(crash_log, format_crash_header_line(crash) + "\n");
    }
    /// The messages of the session; what is missing goes in front of them.
    Texts messages(SessionRecord const& start, std::optional<SessionRecord> const& stop) {
        auto const range = resolve_session_log_range(logger, crash_log, start, stop);
        if (!range) {
            return {"no range"};
        }
        SessionLogText const text = read_session_log(logger, *range);
        Texts result;
        if (!text.missing.empty()) {
            result.push_back(text.missing);
        }
        for (std::string const& line : text.lines) {
            result.push_back(test::message_of(line));
        }
        return result;
    }
    /// Puts each line into a generation of its own from now on.
    void rotate_with_each_line() { logger.set_max_file_size(1); }

    std::string const crash_log = directory / "crash.log";
};

TEST_F(SessionLogTest, ReachesFromTheStartsLineToTheStops) {
    log("before");
    log("at the start");
    SessionRecord const start = start_now();
    log("within");
    log("at the stop");
    SessionRecord const stop = stop_now("end");
    log("behind");
    EXPECT_EQ(messages(start, stop), (Texts{"at the start", "within", "at the stop"}));
}

TEST_F(SessionLogTest, WithoutAStopItReachesToThePresentEnd) {
    log("at the start");
    SessionRecord const start = start_now();
    log("within\nand below");
    log("at the end");
    EXPECT_EQ(messages(start, {}), (Texts{"at the start", "within", "and below", "at the end"}));
}

TEST_F(SessionLogTest, AStartWithoutAPlaceHasNoRange) {
    SessionRecord start = start_now();
    start.log_line = start.generation = 0;
    EXPECT_FALSE(resolve_session_log_range(logger, crash_log, start, stop_now("end")));
}

TEST_F(SessionLogTest, GoesOnAcrossRotations) {
    logger.set_kept_generations(0);
    log("at the start");
    SessionRecord const start = start_now();
    rotate_with_each_line();
    log("one");
    log("two");
    log("three");
    SessionRecord const stop = stop_now("end");
    log("behind");
    EXPECT_EQ(stop.log_line, 0U) << "the test is about a stop right behind a rotation";
    EXPECT_EQ(messages(start, stop), (Texts{"at the start", "one", "two", "three"}));
}

TEST_F(SessionLogTest, AStartRightBehindARotationBeginsWithTheNextLine) {
    rotate_with_each_line();
    log("before");
    SessionRecord const start = start_now();
    ASSERT_EQ(start.log_line, 0U);
    log("within");
    EXPECT_EQ(messages(start, {}), Texts{"within"});
}

TEST_F(SessionLogTest, GenerationsThatHaveGoneAreTold) {
    logger.set_kept_generations(2);
    SessionRecord const start = start_now();
    rotate_with_each_line();
    for (char const* const message : {"one", "two", "three", "four"}) {
        log(message);
    }
    EXPECT_EQ(messages(start, {}), (Texts{"generation 0 no longer retained; generation 1 no longer "
                                          "retained",
                                          "three", "four"}));
}

TEST_F(SessionLogTest, ARangeThatIsGoneWhollyIsToldToo) {
    SessionLogText const text = read_session_log(logger, {{70, 1}, {72, 5}});
    EXPECT_TRUE(text.lines.empty());
    EXPECT_EQ(text.missing, "generation 70 no longer retained; generation 71 no longer retained; "
                            "generation 72 no longer retained");
}

TEST_F(SessionLogTest, AClaimOfEndlessGenerationsEnds) {
    SessionLogText const text = read_session_log(logger, {{1, 1}, {UINT64_MAX, 1}});
    EXPECT_TRUE(text.lines.empty());
    EXPECT_LT(text.missing.size(), 100'000U);
}

TEST_F(SessionLogTest, AStopBeforeItsStartHasNoLines) {
    log("one");
    log("two");
    EXPECT_TRUE(read_session_log(logger, {{0, 3}, {0, 2}}).lines.empty());
    SessionLogText const text = read_session_log(logger, {{5, 1}, {0, 2}});
    EXPECT_TRUE(text.lines.empty());
    EXPECT_EQ(text.missing, "");
}

TEST_F(SessionLogTest, ACrashEndsTheSessionAtTheRecordsTime) {
    log("at the start");
    SessionRecord const start = start_now();
    clock.advance(seconds(5));
    log("before the crash");
    clock.advance(milliseconds(20));
    record_crash_now();
    SessionRecord const stop = crash_stop_now();
    clock.advance(milliseconds(20));
    log("of the next process");
    EXPECT_EQ(messages(start, stop), (Texts{"at the start", "before the crash"}));
}

TEST_F(SessionLogTest, ACrashIsFoundInALaterGeneration) {
    log("at the start");
    SessionRecord const start = start_now();
    rotate_with_each_line();
    log("one");
    log("two");
    record_crash_now();
    SessionRecord const stop = crash_stop_now();
    clock.advance(seconds(2));
    log("of the next process");
    EXPECT_EQ(messages(start, stop), (Texts{"at the start", "one", "two"}));
}

TEST_F(SessionLogTest, WithoutACrashRecordTheStopLinesSecondIsTheEnd) {
    log("at the start");
    SessionRecord const start = start_now();
    clock.advance(milliseconds(500));
    log("before the crash");
    SessionRecord const stop = crash_stop_now();
    clock.advance(milliseconds(500));
    log("of the next process");
    EXPECT_EQ(messages(start, stop), (Texts{"at the start", "before the crash"}));
}

TEST_F(SessionLogTest, ACrashThatNoLineIsLeftOfKeepsTheStartAsItsEnd) {
    SessionRecord const start = start_now();
    SessionRecord stop = crash_stop_now();
    stop.ts -= seconds(100);
    auto const range = resolve_session_log_range(logger, crash_log, start, stop);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->last.generation, start.generation);
    EXPECT_EQ(range->last.line, start.log_line);
}

TEST_F(SessionLogTest, TheLastLineNotLaterIsFound) {
    std::uint64_t const earlier = logger.stats().line_count;
    clock.advance(seconds(1));
    log("one");
    log("two\nwith a second line");
    std::int64_t const time = now_ms();
    clock.advance(milliseconds(1));
    log("four");
    EXPECT_EQ(find_log_line_at_or_before(logger, 0, time), earlier + 3);
    EXPECT_EQ(find_log_line_at_or_before(logger, 0, time - 1), earlier);
    EXPECT_EQ(find_log_line_at_or_before(logger, 0, time - 1001), 0U);
    EXPECT_EQ(find_log_line_at_or_before(logger, 0, time + 1), earlier + 4);
    EXPECT_EQ(find_log_line_at_or_before(logger, 9, time), 0U) << "no such generation";
}

TEST(LogLineTime, IsThatOfTheStamp) {
    test::FakeTimeProvider clock;
    for (std::int64_t const ms :
         {1'700'000'000'123LL, 0LL, 1'719'800'000'999LL, 4'102'444'800'007LL}) {
        clock.set(ITimeProvider::TimePoint(milliseconds(ms)));
        std::string const line = "[mirelclient] [INFO] [" + clock.time_stamp() + "] message";
        EXPECT_EQ(detail::parse_app_log_line_timestamp_ms(line), ms) << line;
    }
}

TEST(LogLineTime, IsFoundBehindAnyLabel) {
    auto const expected =
        detail::parse_app_log_line_timestamp_ms("[a] [TRACE] [2024-01-31_12:34:56.789] m");
    ASSERT_TRUE(expected);
    for (char const* const head :
         {"[] [INFO] ", "[a] [b] [ERROR] ", "[x] [INFO] [UNKNOWN] ", "[a [WARNING] [INFO] "}) {
        std::string const line = std::string(head) + "[2024-01-31_12:34:56.789] m";
        EXPECT_EQ(detail::parse_app_log_line_timestamp_ms(line), expected) << line;
    }
    EXPECT_EQ(detail::parse_app_log_line_timestamp_ms("[a] [INFO] [2024-01-31_12:34:56.789] "),
              expected)
        << "an empty message";
}

TEST(LogLineTime, OtherLinesHaveNone) {
    for (char const* const line : {
             "",
             "[",
             "message",
             "[a] [INFO]",
             "[a] [INFO] [",
             "a] [INFO] [2024-01-31_12:34:56.789] m",
             "[a] [DEBUG] [2024-01-31_12:34:56.789] m",
             "[a] [INFO] [2024-01-31_12:34:56.789",
             "[a] [INFO] [2024-01-31_12:34:56.7890] m",
             "[a] [INFO] [2024-01-31 12:34:56.789] m",
             "[a] [INFO] [2024-01-31_12:34:56] m",
             "[a] [INFO] [2024-+1-31_12:34:56.789] m",
             "[a] [INFO] [2024-13-31_12:34:56.789] m",
             "[a] [INFO] [2024-00-31_12:34:56.789] m",
             "[a] [INFO] [2024-02-30_12:34:56.789] m",
             "[a] [INFO] [2024-01-00_12:34:56.789] m",
             "[a] [INFO] [2024-01-31_24:00:00.000] m",
             "[a] [INFO] [2024-01-31_12:60:00.000] m",
             "[a] [INFO] [2024-01-31_12:00:60.000] m",
         }) {
        EXPECT_FALSE(detail::parse_app_log_line_timestamp_ms(line)) << line;
    }
}

} // namespace
} // namespace tessaron
