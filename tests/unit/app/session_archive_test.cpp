#include "app/session_archive.hpp"
#include "app/session_crash.hpp"

#include "tests/unit/logger/LoggerFixture.hpp"

#include <algorithm>
#include <filesystem>

namespace tessaron {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;
using Texts = std::vector<std::string>;

constexpr std::int64_t K_NOW = 1'700'000'000; // where the fake clock starts

SessionRecord start_of(long pid, std::int64_t ts = K_NOW) {
    SessionRecord record;
    record.is_start = true;
    record.ts = system_clock::time_point(seconds(ts));
    record.pid = pid;
    record.exe = "/bin/mirelclient";
    record.user = "root";
    record.cwd = "/";
    record.log_line = 2;
    return record;
}

SessionRecord stop_of(long pid, std::int64_t ts, std::string const& reason = "end") {
    SessionRecord record;
    record.ts = system_clock::time_point(seconds(ts));
    record.pid = pid;
    record.duration_s = seconds(ts - K_NOW);
    record.log_line = 3;
    record.reason = reason;
    return record;
}

CrashRecord crash_of(long pid, std::int64_t ts) {
    CrashRecord record;
    record.signum = 11;
    record.pid = pid;
    record.ts = ts;
    record.version = "1.0-x";
    record.build_ts = "20240131.000000";
    record.commit = "abc";
    record.build_type = "Release";
    return record;
}

TEST(SessionMeta, TellsAStartAndItsStop) {
    SessionRecord start = start_of(7);
    start.args = {"-v", "a b"};
    EXPECT_EQ(detail::format_session_meta(start, stop_of(7, K_NOW + 60, "reboot: why"), {}),
              "pid: 7\nexe: /bin/mirelclient\nuser: root\ncwd: /\nargs: -v|a b\n"
              "start_ts: 1700000000\nstop_ts: 1700000060\nduration_s: 60\nreason: reboot: why\n");
}

TEST(SessionMeta, TellsTheRuntimesIfThereAreAny) {
    SessionRecord start = start_of(7);
    start.runtime = "begins";
    SessionRecord stop = stop_of(7, K_NOW + 1);
    stop.runtime = "ends";
    std::string const text = detail::format_session_meta(start, stop, {});
    EXPECT_NE(text.find("start_ts: 1700000000\nstart_runtime: begins\nstop_ts: "), text.npos);
    EXPECT_TRUE(text.ends_with("reason: end\nstop_runtime: ends\n")) << text;
}

TEST(SessionMeta, TellsThatThereIsNoStop) {
    EXPECT_TRUE(detail::format_session_meta(start_of(7), {}, {})
                    .ends_with("start_ts: 1700000000\nstop: (none recorded - crash/SIGKILL with no "
                               "stop line, or still running)\n"));
}

TEST(SessionMeta, TellsTheChangesOfTheConfiguration) {
    EXPECT_TRUE(detail::format_session_meta(start_of(7), stop_of(7, K_NOW),
                                            {{5, "web_port", "7080", "80"}, {6, "x", "", "a b"}})
                    .ends_with("reason: end\nconfig changes during this session:\n"
                               "  ts=5 field=web_port old=7080 new=80\n"
                               "  ts=6 field=x old= new=a b\n"));
}

TEST(SessionMeta, ALineBreakInAValueDoesNotMakeALine) {
    std::string const text =
        detail::format_session_meta(start_of(7), stop_of(7, K_NOW, "a\nstop_ts: 1"), {});
    EXPECT_NE(text.find("reason: a stop_ts: 1\n"), text.npos);
}

TEST(CrashText, TellsTheBuildTheBacktraceAndTheTrace) {
    CrashRecord record = crash_of(7, K_NOW);
    record.backtrace = {"frame one", "frame two"};
    EXPECT_EQ(detail::format_crash_txt(record, {"[LOG INFO] ts=1 a", "[LOG INFO] ts=2 b"}),
              "version: 1.0-x build_ts=20240131.000000 commit=abc build_type=Release\n"
              "backtrace:\n  frame one\n  frame two\n[LOG INFO] ts=1 a\n[LOG INFO] ts=2 b\n");
}

TEST(CrashReason, BeginsWithCrash) {
    EXPECT_TRUE(detail::is_crash_session_reason("crash: signal SIGSEGV"));
    EXPECT_FALSE(detail::is_crash_session_reason("crash"));
    EXPECT_FALSE(detail::is_crash_session_reason("reboot: crash: x"));
    EXPECT_FALSE(detail::is_crash_session_reason(""));
}

class SessionArchiveTest : public test::LoggerFixture {
protected:
    SessionArchiveTest() {
        EXPECT_TRUE(logger.redirect_to_file(path));
        log("one");
        log("two");
        archive.set_keep_count(3);
    }

    /// The names in a folder below the application's, in order.
    Texts names_in(std::string const& folder) const {
        Texts names;
        std::error_code missing;
        for (auto const& entry : std::filesystem::directory_iterator(directory / folder, missing)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    Texts archives() const { return names_in("sessions"); }
    void put(std::string const& name, std::string const& text) const {
        std::filesystem::create_directories(std::filesystem::path(directory / name).parent_path());
        test::put_file(directory / name, text);
    }
    std::string text(std::string const& name) const { return test::text_of(directory / name); }
    void make_archives(Texts const& names) const {
        for (std::string const& name : names) {
            put("sessions/" + name + "/meta.txt", name);
        }
    }
    void prune(std::uint64_t keep, std::string const& name = "") const {
        detail::prune_session_archives(directory / "sessions", name, keep);
    }

    SessionArchive archive{directory.path(), directory / "incidents", logger};
};

TEST_F(SessionArchiveTest, AFolderIsNamedByTheStart) {
    EXPECT_EQ(detail::session_archive_dir_name(start_of(42)), "1700000000_42");
}

TEST_F(SessionArchiveTest, HoldsTheSessionsTextsAndItsPartOfTheLog) {
    put("config_history.log", config::format_config_change_line(K_NOW - 1, "early", "a", "b") +
                                  config::format_config_change_line(K_NOW, "x", "a", "b") +
                                  config::format_config_change_line(K_NOW + 9, "y", "a", "b") +
                                  config::format_config_change_line(K_NOW + 10, "late", "a", "b"));
    archive.archive_session(start_of(7), stop_of(7, K_NOW + 9));
    EXPECT_EQ(names_in("sessions/1700000000_7"), (Texts{"meta.txt", "session.log"}));
    EXPECT_EQ(text("sessions/1700000000_7/meta.txt"),
              "pid: 7\nexe: /bin/mirelclient\nuser: root\ncwd: /\nargs: \nstart_ts: 1700000000\n"
              "stop_ts: 1700000009\nduration_s: 9\nreason: end\n"
              "config changes during this session:\n"
              "  ts=1700000000 field=x old=a new=b\n  ts=1700000009 field=y old=a new=b\n");
    EXPECT_EQ(test::messages_of(directory / "sessions/1700000000_7/session.log"),
              (Texts{"Log output redirected here from a previous destination", "one"}));
}

TEST_F(SessionArchiveTest, TellsWhichPartOfTheLogIsGone) {
    SessionRecord start = start_of(7);
    SessionRecord stop = stop_of(7, K_NOW + 9);
    start.generation = 5;
    stop.generation = 6;
    archive.archive_session(start, stop);
    EXPECT_EQ(text("sessions/1700000000_7/session.log"),
              "partial log - generation 5 no longer retained; generation 6 no longer retained\n");
}

TEST_F(SessionArchiveTest, TellsThatASessionHasNoPlaceInTheLog) {
    SessionRecord start = start_of(7);
    start.log_line = 0;
    archive.archive_session(start, {});
    EXPECT_EQ(text("sessions/1700000000_7/session.log"),
              "no log range recorded for this session\n");
}

TEST_F(SessionArchiveTest, HoldsTheCrashThatEndedTheSession) {
    CrashRecord crash = crash_of(7, K_NOW + 5);
    put("crash.log", format_crash_header_line(crash) +
                         "\nframe\n--- recent activity ---\n[LOG INFO] ts=1 a\n" +
                         format_crash_header_line(crash_of(8, K_NOW + 6)) + "\n");
    archive.archive_session(start_of(7), stop_of(7, K_NOW + 5, "crash: signal SIGSEGV"));
    EXPECT_EQ(text("sessions/1700000000_7/crash.txt"),
              "version: 1.0-x build_ts=20240131.000000 commit=abc build_type=Release\n"
              "backtrace:\n  frame\n[LOG INFO] ts=1 a\n");
}

TEST_F(SessionArchiveTest, ASessionThatEndedWellHasNoCrash) {
    put("crash.log", format_crash_header_line(crash_of(7, K_NOW + 5)) + "\n");
    archive.archive_session(start_of(7), stop_of(7, K_NOW + 5, "stop signal: SIGTERM"));
    EXPECT_EQ(names_in("sessions/1700000000_7"), (Texts{"meta.txt", "session.log"}));
}

TEST_F(SessionArchiveTest, HoldsTheIncidentsOfItsTime) {
    for (char const* const time :
         {"1699999999999", "1700000000000", "1700000009999", "1700000010000", "17x", ""}) {
        put(std::string("incidents/incident-") + time + ".txt", time);
    }
    put("incidents/incident-1700000000001.txt.tmp", "x");
    put("incidents/other-1700000000001.txt", "x");
    std::filesystem::create_symlink(directory / "incidents/incident-1700000000000.txt",
                                    directory / "incidents/incident-1700000000002.txt");
    archive.archive_session(start_of(7), stop_of(7, K_NOW + 9));
    EXPECT_EQ(names_in("sessions/1700000000_7"),
              (Texts{"incident-1700000000000.txt", "incident-1700000009999.txt", "meta.txt",
                     "session.log"}));
    EXPECT_EQ(text("sessions/1700000000_7/incident-1700000009999.txt"), "1700000009999");
}

TEST_F(SessionArchiveTest, ASessionWithoutAStopReachesToThePresent) {
    put("incidents/incident-1700000009000.txt", "x");
    put("incidents/incident-1700000011000.txt", "x");
    clock.advance(seconds(10));
    archive.archive_session(start_of(7), {});
    EXPECT_EQ(names_in("sessions/1700000000_7"),
              (Texts{"incident-1700000009000.txt", "meta.txt", "session.log"}));
}

TEST_F(SessionArchiveTest, NothingIsArchivedWithAKeepCountOfZero) {
    archive.set_keep_count(0);
    put("sessions.log", format_session_start(start_of(7)) + "\n");
    archive.archive_session_if_enabled(start_of(7), {});
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(archives(), Texts());
    archive.set_keep_count(1);
    archive.archive_session_if_enabled(start_of(7), {});
    EXPECT_EQ(archives(), Texts{"1700000000_7"});
}

TEST_F(SessionArchiveTest, ArchivingPrunesTheOldest) {
    for (long pid = 1; pid <= 5; ++pid) {
        archive.archive_session(start_of(pid, K_NOW + pid), {});
    }
    EXPECT_EQ(archives(), (Texts{"1700000003_3", "1700000004_4", "1700000005_5"}));
}

TEST_F(SessionArchiveTest, AFolderThatCannotBeMadeIsNoHarm) {
    put("sessions", "a file in its place");
    archive.archive_session(start_of(7), {});
    EXPECT_EQ(text("sessions"), "a file in its place");
}

TEST_F(SessionArchiveTest, ASessionThatWasKilledIsArchivedByTheNext) {
    put("sessions.log", format_session_start(start_of(6, K_NOW - 9)) + "\n" +
                            format_session_start(start_of(7)) + "\n");
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(archives(), Texts{"1700000000_7"});
    EXPECT_NE(text("sessions/1700000000_7/meta.txt").find("stop: (none recorded"),
              std::string::npos);
}

TEST_F(SessionArchiveTest, ASessionThatCrashedIsArchivedWithItsStop) {
    put("sessions.log", format_session_start(start_of(7)) + "\n" +
                            format_session_stop(stop_of(7, K_NOW + 5, "crash: signal X")) + "\n");
    put("crash.log", format_crash_header_line(crash_of(7, K_NOW + 5)) + "\n");
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(names_in("sessions/1700000000_7"), (Texts{"crash.txt", "meta.txt", "session.log"}));
}

TEST_F(SessionArchiveTest, AnArchiveWithContentIsNotWrittenAgain) {
    put("sessions.log", format_session_start(start_of(7)) + "\n");
    put("sessions/1700000000_7/session.log", "as it was");
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(text("sessions/1700000000_7/session.log"), "as it was");
    EXPECT_EQ(names_in("sessions/1700000000_7"), Texts{"session.log"});
}

TEST_F(SessionArchiveTest, AnArchiveWhoseLogIsNoFileIsWrittenAgain) {
    put("sessions.log", format_session_start(start_of(7)) + "\n");
    put("sessions/1700000000_7/meta.txt", "half an archive");
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(names_in("sessions/1700000000_7"), (Texts{"meta.txt", "session.log"}));
    EXPECT_NE(text("sessions/1700000000_7/meta.txt"), "half an archive");
}

TEST_F(SessionArchiveTest, BackfillingPrunesEvenIfThereIsNothingToArchive) {
    put("sessions.log", format_session_start(start_of(7)) + "\n");
    put("sessions/1700000000_7/session.log", "as it was");
    make_archives({"1_1", "2_2", "3_3"});
    archive.backfill_and_prune_session_archives();
    EXPECT_EQ(archives(), (Texts{"1700000000_7", "2_2", "3_3"}));
}

TEST_F(SessionArchiveTest, PruningGoesByNumbersNotByTexts) {
    make_archives({"99_5", "100_10", "100_9", "1000_1"});
    prune(2);
    EXPECT_EQ(archives(), (Texts{"1000_1", "100_10"}));
}

TEST_F(SessionArchiveTest, PruningLeavesWhatIsNoArchive) {
    Texts const others = {"007_5", "1_2_3", "_", "_1", "1_", "1_x", "notes"};
    make_archives(others);
    put("sessions/5_5", "a file");
    make_archives({"8_8", "9_9"});
    prune(1);
    Texts expected = others;
    expected.insert(expected.end(), {"5_5", "9_9"});
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(archives(), expected);
}

TEST_F(SessionArchiveTest, PruningNeverFollowsALink) {
    put("elsewhere/precious", "x");
    make_archives({"2_2", "3_3"});
    std::filesystem::create_directory_symlink(directory / "elsewhere", directory / "sessions/1_1");
    std::filesystem::create_directory_symlink(directory / "elsewhere",
                                              directory / "sessions/2_2/link");
    prune(1);
    EXPECT_EQ(archives(), (Texts{"1_1", "3_3"}));
    EXPECT_EQ(text("elsewhere/precious"), "x");
}

TEST_F(SessionArchiveTest, PruningLeavesTheArchiveJustWrittenThoughTheClockWentBack) {
    make_archives({"5_5", "6_6", "7_7"});
    prune(2, "5_5");
    EXPECT_EQ(archives(), (Texts{"5_5", "7_7"}));
}

TEST_F(SessionArchiveTest, PruningWithAKeepCountOfZeroRemovesNothing) {
    make_archives({"5_5", "6_6"});
    prune(0);
    EXPECT_EQ(archives().size(), 2U);
    prune(2);
    EXPECT_EQ(archives().size(), 2U);
}

class MatchingCrashTest : public testing::Test {
protected:
    std::optional<std::int64_t> match(std::vector<CrashRecord> const& records) {
        std::string text;
        for (CrashRecord const& record : records) {
            text += format_crash_header_line(record) + "\n";
        }
        test::put_file(directory_ / "crash.log", text);
        auto const found = detail::find_matching_crash_record(directory_ / "crash.log", start_of(7),
                                                              stop_of(7, K_NOW + 10, "crash: x"));
        return found ? std::optional(found->ts - K_NOW) : std::nullopt;
    }

    test::TemporaryDirectory directory_;
};

TEST_F(MatchingCrashTest, HasThePidAndATimeWithinTheSession) {
    EXPECT_EQ(match({crash_of(7, K_NOW)}), 0);
    EXPECT_EQ(match({crash_of(7, K_NOW + 10)}), 10);
    EXPECT_FALSE(match({crash_of(8, K_NOW + 5)}));
    EXPECT_FALSE(match({crash_of(7, K_NOW - 1)}));
    EXPECT_FALSE(match({crash_of(7, K_NOW + 12)}));
    EXPECT_FALSE(match({}));
}

TEST_F(MatchingCrashTest, MayBeASecondAheadOfTheStopLine) {
    EXPECT_EQ(match({crash_of(7, K_NOW + 11)}), 11);
}

TEST_F(MatchingCrashTest, IsTheNewest) {
    EXPECT_EQ(match({crash_of(7, K_NOW + 4), crash_of(7, K_NOW + 9), crash_of(8, K_NOW + 9)}), 9);
}

} // namespace
} // namespace tessaron
