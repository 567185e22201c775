#include "app/crash_history.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <sys/stat.h>

namespace tessaron {
namespace {

using Texts = std::vector<std::string>;

constexpr char const* K_HEADER_LINE =
    "=== crash === signum=11 pid=4242 ts=1700000000 ts_ms=7 addr=0xdeadbeef version=1.2.3-x "
    "build_ts=20240131.123456 build_machine=host build_user=me commit=0123456789ab "
    "build_type=Release compiler=GNU_12.2.0";

CrashRecord sample() {
    CrashRecord record;
    record.signum = 11;
    record.pid = 4242;
    record.ts = 1700000000;
    record.ts_ms = 7;
    record.addr = 0xdeadbeef;
    record.version = "1.2.3-x";
    record.build_ts = "20240131.123456";
    record.build_machine = "host";
    record.build_user = "me";
    record.commit = "0123456789ab";
    record.build_type = "Release";
    record.compiler = "GNU_12.2.0";
    return record;
}

std::string header_of(long pid) {
    return "=== crash === signum=6 pid=" + std::to_string(pid) + " ts=" + std::to_string(pid * 10) +
           " ts_ms=0\n";
}

std::vector<CrashRecord> parsed(std::string const& text, std::size_t max_records = 0,
                                std::size_t max_backtrace = 0) {
    std::istringstream stream(text);
    return detail::parse_crash_history_stream(stream, max_records, max_backtrace);
}

TEST(CrashHeader, ALineHasItsFieldsInOrder) {
    EXPECT_EQ(format_crash_header_line(sample()), K_HEADER_LINE);
}

TEST(CrashHeader, ALineReadsBack) {
    CrashRecord record;
    ASSERT_TRUE(detail::parse_crash_header_line(K_HEADER_LINE, record));
    EXPECT_EQ(record.signum, 11);
    EXPECT_EQ(record.pid, 4242);
    EXPECT_EQ(record.ts, 1700000000);
    EXPECT_EQ(record.ts_ms, 7);
    EXPECT_EQ(record.addr, 0xdeadbeefU);
    EXPECT_EQ(record.version, "1.2.3-x");
    EXPECT_EQ(record.build_ts, "20240131.123456");
    EXPECT_EQ(record.build_machine, "host");
    EXPECT_EQ(record.build_user, "me");
    EXPECT_EQ(record.commit, "0123456789ab");
    EXPECT_EQ(record.build_type, "Release");
    EXPECT_EQ(record.compiler, "GNU_12.2.0");
}

TEST(CrashHeader, BlanksAndLineBreaksInTheStampDoNotBreakTheLine) {
    CrashRecord record = sample();
    record.compiler = "GNU 12.2.0 pid=1";
    record.build_user = "a\nb";
    std::string const line = format_crash_header_line(record);
    CrashRecord back;
    ASSERT_TRUE(detail::parse_crash_header_line(line, back));
    EXPECT_EQ(back.compiler, "GNU_12.2.0_pid=1");
    EXPECT_EQ(back.build_user, "a_b");
    EXPECT_EQ(back.pid, 4242);
}

TEST(CrashHeader, AnAddressIsThereWithASignalOnly) {
    CrashRecord record = sample();
    record.addr.reset();
    std::string const line = format_crash_header_line(record);
    EXPECT_EQ(line.find("addr"), std::string::npos);
    CrashRecord back;
    ASSERT_TRUE(detail::parse_crash_header_line(line, back));
    EXPECT_FALSE(back.addr);
    record.addr = 0;
    ASSERT_TRUE(detail::parse_crash_header_line(format_crash_header_line(record), back));
    EXPECT_EQ(back.addr, 0U) << "a null pointer has an address";
}

TEST(CrashHeader, TheTextOfAnAddressIsThatOfTheLine) {
    CrashRecord record;
    EXPECT_EQ(crash_address_text(record), "");
    record.addr = 0;
    EXPECT_EQ(crash_address_text(record), "0x0");
    EXPECT_EQ(crash_address_text(sample()), "0xdeadbeef");
    record.addr = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(crash_address_text(record), "0xffffffffffffffff");
}

TEST(CrashHeader, LimitsOfTheNumbersReadBack) {
    CrashRecord record = sample();
    record.ts = std::numeric_limits<std::int64_t>::min();
    record.addr = std::numeric_limits<std::uint64_t>::max();
    CrashRecord back;
    ASSERT_TRUE(detail::parse_crash_header_line(format_crash_header_line(record), back));
    EXPECT_EQ(back.ts, record.ts);
    EXPECT_EQ(back.addr, record.addr);
}

TEST(CrashHeader, UnknownKeysAndUnreadableNumbersArePassedOver) {
    CrashRecord record;
    ASSERT_TRUE(detail::parse_crash_header_line("=== crash === colour=red signum=6a pid=5 ts= "
                                                "ts_ms=99999999999999999999 addr=beef words  = ",
                                                record));
    EXPECT_EQ(record.signum, 0);
    EXPECT_EQ(record.pid, 5);
    EXPECT_EQ(record.ts, 0);
    EXPECT_EQ(record.ts_ms, 0);
    EXPECT_FALSE(record.addr);
}

TEST(CrashHeader, OtherLinesAreNoHeader) {
    CrashRecord record;
    EXPECT_FALSE(detail::parse_crash_header_line("", record));
    EXPECT_FALSE(detail::parse_crash_header_line("=== crash ==", record));
    EXPECT_FALSE(detail::parse_crash_header_line(" === crash === pid=5", record));
    EXPECT_TRUE(detail::parse_crash_header_line("=== crash ===", record));
    EXPECT_EQ(record.pid, 0);
}

TEST(CrashHistoryStream, ARecordHasItsBacktraceAndNotItsTrace) {
    auto const records = parsed(std::string(K_HEADER_LINE) +
                                "\n./a(+0x1) [0x1]\n./a(+0x2) [0x2]\n--- recent activity ---\n"
                                "[LOG INFO] ts=1 hello\ndetail: of the trace\n" +
                                header_of(5) + "frame\n");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].pid, 4242);
    EXPECT_EQ(records[0].backtrace, (Texts{"./a(+0x1) [0x1]", "./a(+0x2) [0x2]"}));
    EXPECT_EQ(records[0].detail, "");
    EXPECT_EQ(records[1].pid, 5);
    EXPECT_EQ(records[1].backtrace, Texts{"frame"});
}

TEST(CrashHistoryStream, ARecordWithoutBacktraceOrTraceHasAnEmptyBacktrace) {
    auto const records = parsed(header_of(1) + header_of(2) + "--- recent activity ---\nx\n" +
                                "=== crash === signum=6 pid=3");
    ASSERT_EQ(records.size(), 3U);
    for (CrashRecord const& record : records) {
        EXPECT_TRUE(record.backtrace.empty()) << record.pid;
    }
}

TEST(CrashHistoryStream, AnUncaughtExceptionHasADetailAndNoAddress) {
    auto const records = parsed("=== crash === signum=0 pid=9 ts=5 ts_ms=1 version=1\nframe\n"
                                "detail: std::runtime_error: a detail: b\n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].signum, 0);
    EXPECT_FALSE(records[0].addr);
    EXPECT_EQ(records[0].detail, "std::runtime_error: a detail: b");
    EXPECT_EQ(records[0].backtrace, Texts{"frame"});
}

TEST(CrashHistoryStream, LinesBeforeTheFirstHeaderAreSkipped) {
    auto const records =
        parsed("frame\ndetail: x\n--- recent activity ---\n" + header_of(1) + "f\n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].detail, "");
    EXPECT_EQ(records[0].backtrace, Texts{"f"});
    EXPECT_TRUE(parsed("").empty());
}

TEST(CrashHistoryStream, TheNewestRecordsStayOldestFirst) {
    std::string const text =
        header_of(1) + header_of(2) + "--- recent activity ---\n" + header_of(3);
    auto const records = parsed(text, 2);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].pid, 2);
    EXPECT_EQ(records[1].pid, 3);
    EXPECT_EQ(parsed(text, 3).size(), 3U);
    EXPECT_EQ(parsed(text, 0).size(), 3U);
}

TEST(CrashHistoryStream, TheFirstFramesStay) {
    std::string const text = header_of(1) + "a\nb\nc\n";
    EXPECT_EQ(parsed(text, 0, 2)[0].backtrace, (Texts{"a", "b"}));
    EXPECT_EQ(parsed(text, 0, 0)[0].backtrace, (Texts{"a", "b", "c"}));
}

TEST(CrashHistoryStream, CarriageReturnsAtTheEndOfLinesAreCut) {
    auto const records = parsed("=== crash === pid=1 compiler=gcc\r\nframe\r\ndetail: d\r\n"
                                "--- recent activity ---\r\ntrace\r\n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].compiler, "gcc");
    EXPECT_EQ(records[0].detail, "d");
    EXPECT_EQ(records[0].backtrace, Texts{"frame"});
}

class CrashLogTest : public testing::Test {
protected:
    static constexpr std::size_t K_MAX = K_CRASH_LOG_MAX_SIZE;

    void put(std::string const& contents) { ASSERT_TRUE(write_file(path_, contents, O_TRUNC)); }
    std::string text() const { return read_file(path_).value_or("<no file>"); }

    std::vector<long> pids() const {
        std::vector<long> result;
        for (CrashRecord const& record : read_crash_history(path_, 0, 0)) {
            result.push_back(record.pid);
        }
        return result;
    }

    /// A record of exactly `size` bytes, its newline included.
    static std::string record_of_size(long pid, std::size_t size) {
        std::string record = header_of(pid);
        EXPECT_GT(size, record.size());
        return record.append(size - record.size() - 1, 'x').append("\n");
    }

    void trim() { detail::enforce_crash_log_max_size(path_); }

    test::TemporaryDirectory directory_;
    std::string const path_ = directory_ / "crash.log";
};

TEST_F(CrashLogTest, TheReaderOfTheFileAgreesWithTheReaderOfAStream) {
    std::string contents = "junk\n";
    for (long pid = 1; pid <= 40; ++pid) {
        contents += header_of(pid) + "f1\nf2\ndetail: " + std::string(3000, 'd') +
                    "\n--- recent activity ---\nt1\nt2\n";
    }
    put(contents);
    for (std::size_t max : {0, 1, 7, 40, 100}) {
        auto const from_file = read_crash_history(path_, max, 1);
        auto const from_stream = parsed(contents, max, 1);
        ASSERT_EQ(from_file.size(), from_stream.size()) << max;
        for (std::size_t i = 0; i < from_file.size(); ++i) {
            EXPECT_EQ(from_file[i].pid, from_stream[i].pid);
            EXPECT_EQ(from_file[i].detail, from_stream[i].detail);
            EXPECT_EQ(from_file[i].backtrace, Texts{"f1"});
        }
    }
}

TEST_F(CrashLogTest, AMissingFileHasNoRecords) {
    EXPECT_TRUE(read_crash_history(path_, 0, 0).empty());
    EXPECT_TRUE(read_crash_history(path_, 100, 32).empty());
    EXPECT_FALSE(crash_trace_for_record(path_, 1, 10));
}

TEST_F(CrashLogTest, TheTraceOfARecordEndsAtTheNextHeader) {
    put(header_of(1) + "f\n--- recent activity ---\n[LOG INFO] ts=1 a\n[BUS EVENT TX] ts=2 b\n" +
        header_of(2) + "f\n" + header_of(3) +
        "--- recent activity ---\nc\n--- recent activity ---\n");
    EXPECT_EQ(crash_trace_for_record(path_, 1, 10),
              (Texts{"[LOG INFO] ts=1 a", "[BUS EVENT TX] ts=2 b"}));
    EXPECT_EQ(crash_trace_for_record(path_, 2, 20), Texts());
    EXPECT_EQ(crash_trace_for_record(path_, 3, 30), (Texts{"c", "--- recent activity ---"}));
    CrashRecord record;
    record.pid = 1;
    record.ts = 10;
    EXPECT_EQ(crash_trace_for_record(path_, record)->size(), 2U);
}

TEST_F(CrashLogTest, ATraceIsFoundByPidAndTimeTogether) {
    put(header_of(1) + "--- recent activity ---\na\n");
    EXPECT_FALSE(crash_trace_for_record(path_, 1, 11));
    EXPECT_FALSE(crash_trace_for_record(path_, 2, 10));
}

TEST_F(CrashLogTest, AnOversizedSingleRecordStaysUntouched) {
    std::string const contents = record_of_size(1, K_MAX + 1);
    ASSERT_EQ(contents.size(), 1'048'577U);
    put(contents);
    trim();
    EXPECT_EQ(text(), contents);
    put("junk\n" + contents);
    trim();
    EXPECT_EQ(text(), "junk\n" + contents);
}

TEST_F(CrashLogTest, AFileOfTheMaximumSizeStaysUntouched) {
    std::string const contents = record_of_size(1, K_MAX / 2) + record_of_size(2, K_MAX / 2);
    ASSERT_EQ(contents.size(), K_MAX);
    put(contents);
    trim();
    EXPECT_EQ(text(), contents);
}

TEST_F(CrashLogTest, OneByteMoreDropsTheOldestRecord) {
    std::string const newest = record_of_size(2, K_MAX / 2);
    put(record_of_size(1, K_MAX / 2 + 1) + newest);
    trim();
    EXPECT_EQ(text(), newest);
}

TEST_F(CrashLogTest, AsManyRecordsAsFitAreKept) {
    std::string const kept = record_of_size(3, K_MAX / 2) + record_of_size(4, K_MAX / 2);
    put(record_of_size(1, 1000) + record_of_size(2, 1000) + kept);
    trim();
    EXPECT_EQ(text(), kept) << "a tail of exactly the maximum fits";
    put(record_of_size(2, 1000) + record_of_size(3, K_MAX / 2) + record_of_size(4, K_MAX / 2 + 1));
    trim();
    EXPECT_EQ(pids(), std::vector<long>{4});
}

TEST_F(CrashLogTest, TheNewestRecordIsKeptThoughItDoesNotFit) {
    std::string const newest = record_of_size(3, K_MAX + 7);
    put(record_of_size(1, 1000) + record_of_size(2, 1000) + newest);
    trim();
    EXPECT_EQ(text(), newest);
}

TEST_F(CrashLogTest, LinesBeforeTheFirstRecordAreDroppedFirst) {
    std::string const kept = record_of_size(1, 1000) + record_of_size(2, 1000);
    put(std::string(K_MAX, 'j') + "\n" + kept);
    trim();
    EXPECT_EQ(text(), kept);
}

TEST_F(CrashLogTest, AMissingNewlineAtTheEndCountsAndIsAdded) {
    std::string cut = record_of_size(2, K_MAX);
    cut.pop_back();
    put(record_of_size(1, 1000) + cut);
    trim();
    EXPECT_EQ(text(), cut + "\n");
    EXPECT_EQ(text().size(), K_MAX);
}

TEST_F(CrashLogTest, TrimmingKeepsTheFilesPermissions) {
    put(record_of_size(1, K_MAX) + record_of_size(2, 1000));
    ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    trim();
    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(pids(), std::vector<long>{2});
}

TEST_F(CrashLogTest, AFileThatCannotBeRewrittenStaysAsItIs) {
    std::string const contents = record_of_size(1, K_MAX) + record_of_size(2, 1000);
    put(contents);
    ASSERT_EQ(mkdir((path_ + ".tmp").c_str(), 0755), 0); // where the new file would be written
    trim();
    EXPECT_EQ(text(), contents);
}

TEST_F(CrashLogTest, AMissingFileIsNotMadeByTrimming) {
    trim();
    EXPECT_EQ(text(), "<no file>");
}

} // namespace
} // namespace tessaron
