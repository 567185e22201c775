#include "app/utilities/fs_tools.hpp"
#include "logger/log_generations.hpp"
#include "tests/unit/logger/LoggerFixture.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

using test::lines_of;
using test::messages_of;
using test::put_file;
using test::text_of;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::SizeIs;

constexpr std::chrono::seconds K_INTERVAL = Logger::K_RECOVERY_CHECK_INTERVAL;
std::string const K_REDIRECTED = "Log output redirected here from a previous destination";

struct Destination : test::LoggerFixture {
    /// No directory can be made where a file stands, not even by root.
    void block_directory() {
        std::filesystem::remove_all(log_directory);
        put_file(log_directory, "in the way");
    }
    void unblock_directory() { std::filesystem::remove(log_directory); }

    std::string redirecting() const { return "Redirecting log output to '" + path + "'"; }
    std::string could_not_open() const {
        return "Could not open '" + path + "' - falling back to '" + fallback_path + "'";
    }
    std::string recovered() const {
        return "Recovered '" + path + "' - migrated buffered lines from '" + fallback_path +
               "' here";
    }
    std::string lost() const {
        return "Lost '" + path + "' mid-run - falling back to '" + fallback_path + "'";
    }
    void redirect() {
        ASSERT_TRUE(logger.redirect_to_file(path));
        logger.flush();
    }
    /// Lets the file end `missing` bytes short of the default limit, whatever it holds so far.
    void fill_up_to(std::uint64_t size) {
        std::uint64_t const line = logger.stats().file_size_bytes;
        std::string const overhead = "[" + label + "] [INFO] [" + clock.time_stamp() + "] " + "\n";
        log(std::string(size - line - overhead.size(), 'x'));
    }
};

TEST_F(Destination, LinesLoggedDuringStartReachTheFile) {
    log("one");
    log("two");
    redirect();
    log("three");
    EXPECT_THAT(messages_of(path), ElementsAre("one", "two", redirecting(), K_REDIRECTED, "three"));
    EXPECT_EQ(logger.stats().line_count, 5U);
}

TEST_F(Destination, AnnouncementAloneStandsOnTheOldDestination) {
    redirect();
    EXPECT_TRUE(console.text().ends_with("] " + redirecting() + "\n"));
    EXPECT_EQ(std::ranges::count(console.text(), '\n'), 1);
}

TEST_F(Destination, The201stLineBeforeTheRedirectIsNotMigrated) {
    for (int i = 1; i <= 201; ++i) {
        logger.log(LogLevel::INFO, "line ", i);
    }
    redirect();
    auto const messages = messages_of(path);
    ASSERT_THAT(messages, SizeIs(201)); // 200 pending ones and the outcome
    EXPECT_EQ(messages[199], "line 200");
    EXPECT_EQ(messages[200], K_REDIRECTED);
    EXPECT_NE(console.text().find("] line 201\n"), std::string::npos);
}

TEST_F(Destination, RedirectToDirectoryUsesASubdirectoryOfTheLabel) {
    ASSERT_TRUE(logger.redirect_to_directory(directory.path()));
    EXPECT_EQ(logger.stats().path, directory / label + "/app.log");
}

TEST_F(Destination, RedirectAppendsToTheFileAndCountsItsLines) {
    std::filesystem::create_directory(log_directory);
    put_file(path, "a\nb\n");
    redirect();
    EXPECT_EQ(logger.stats().line_count, 4U);
    EXPECT_EQ(lines_of(path).at(0), "a");
}

TEST_F(Destination, SecondRedirectMovesOnToTheOtherFile) {
    redirect();
    ASSERT_TRUE(logger.redirect_to_file(directory / "other.log"));
    log("hello");
    EXPECT_THAT(messages_of(directory / "other.log"), ElementsAre(K_REDIRECTED, "hello"));
}

TEST_F(Destination, DirectoryThatCannotBeMadeSendsLinesToTheFallback) {
    block_directory();
    log("early");
    redirect();
    EXPECT_EQ(logger.stats().path, fallback_path);
    EXPECT_THAT(messages_of(fallback_path),
                ElementsAre("early", redirecting(), could_not_open(), K_REDIRECTED));
}

TEST_F(Destination, WithoutAnyFileTheOutputStaysWhereItIs) {
    block_directory();
    put_file(fallback_directory, "in the way too");
    EXPECT_FALSE(logger.redirect_to_file(path));
    log("after");
    std::filesystem::remove(fallback_directory);
    EXPECT_EQ(logger.stats().path, "");
    EXPECT_NE(console.text().find("Could not open fallback '" + fallback_path +
                                  "' either - staying on the current output\n"),
              std::string::npos);
    EXPECT_TRUE(console.text().ends_with("] after\n"));
}

TEST_F(Destination, RecoveryMovesTheFallbackLinesToTheIntendedFileAndEmptiesTheFallback) {
    block_directory();
    redirect();
    log("on the fallback");
    unblock_directory();
    clock.advance(K_INTERVAL);
    log("the line that drives the check");
    EXPECT_THAT(messages_of(path),
                ElementsAre(redirecting(), could_not_open(), K_REDIRECTED, "on the fallback",
                            "the line that drives the check", recovered()));
    EXPECT_EQ(text_of(fallback_path), "");
    LogStats const stats = logger.stats();
    EXPECT_EQ(stats.path, path);
    EXPECT_EQ(stats.line_count, 6U);
}

TEST_F(Destination, RecoveryWaitsForTheIntervalToPass) {
    block_directory();
    redirect();
    unblock_directory();
    clock.advance(K_INTERVAL - std::chrono::microseconds(1));
    log("too early");
    EXPECT_EQ(logger.stats().path, fallback_path);
    clock.advance(std::chrono::microseconds(1));
    log("in time");
    EXPECT_EQ(logger.stats().path, path);
}

TEST_F(Destination, WithoutALoggedLineNoRecoveryHappens) {
    block_directory();
    redirect();
    unblock_directory();
    clock.advance(100 * K_INTERVAL);
    EXPECT_EQ(logger.stats().path, fallback_path);
    EXPECT_FALSE(fs_tools::path_exists(path));
}

TEST_F(Destination, RecoveryIsTriedAgainAtEachCheck) {
    block_directory();
    redirect();
    for (int check = 0; check < 3; ++check) {
        clock.advance(K_INTERVAL);
        log("still blocked");
        EXPECT_EQ(logger.stats().path, fallback_path);
    }
    unblock_directory();
    clock.advance(K_INTERVAL);
    log("free");
    EXPECT_EQ(logger.stats().path, path);
    EXPECT_EQ(std::ranges::count(messages_of(path), "still blocked"), 3);
}

TEST_F(Destination, RecoveryKeepsWhatTheIntendedFileHeldAndItsBackupNumbers) {
    block_directory();
    redirect();
    unblock_directory();
    std::filesystem::create_directory(log_directory);
    put_file(path, "from an earlier run\n");
    put_file(path + ".7", "backup\n");
    clock.advance(K_INTERVAL);
    log("back");
    EXPECT_EQ(lines_of(path).at(0), "from an earlier run");
    EXPECT_EQ(logger.stats().generation, 8U);
}

TEST_F(Destination, VanishedDirectorySendsLinesToTheConsoleThenToTheFallbackThenBack) {
    redirect();
    clock.advance(K_INTERVAL);
    log("in the file");
    block_directory();
    log("on the console");
    EXPECT_TRUE(console.text().ends_with("] on the console\n"));
    EXPECT_EQ(logger.stats().path, path);

    clock.advance(K_INTERVAL);
    log("still on the console");
    EXPECT_EQ(logger.stats().path, fallback_path);
    EXPECT_THAT(messages_of(fallback_path), ElementsAre(lost()));
    EXPECT_EQ(logger.stats().line_count, 1U);

    unblock_directory();
    clock.advance(K_INTERVAL);
    log("on the fallback");
    EXPECT_THAT(messages_of(path), ElementsAre(lost(), "on the fallback", recovered()));
    EXPECT_EQ(text_of(fallback_path), "");
}

TEST_F(Destination, DirectoryBackBeforeTheCheckIsWrittenToWithoutAnyFallback) {
    redirect();
    block_directory();
    log("on the console");
    unblock_directory();
    std::filesystem::create_directory(log_directory);
    log("in the file");
    clock.advance(K_INTERVAL);
    log("checked");
    EXPECT_EQ(logger.stats().path, path);
    EXPECT_THAT(messages_of(path), ElementsAre("in the file", "checked"));
}

TEST_F(Destination, LineCountIsThatOfTheFileAfterItWasDeletedAndMadeAgain) {
    redirect();
    log("in the deleted file");
    std::filesystem::remove(path);
    log("in the new one");
    EXPECT_THAT(messages_of(path), ElementsAre("in the new one"));
    EXPECT_EQ(logger.stats().line_count, 1U);
}

TEST_F(Destination, LostFileWithoutFallbackStaysOnTheConsole) {
    redirect();
    block_directory();
    put_file(fallback_directory, "in the way too");
    clock.advance(K_INTERVAL);
    log("homeless");
    std::filesystem::remove(fallback_directory);
    EXPECT_TRUE(console.text().ends_with("] Could not open fallback '" + fallback_path +
                                         "' either - staying on console\n"));
    EXPECT_EQ(logger.stats().path, path);
}

/// A console that refuses everything, as a closed one does.
class RefusingBuffer final : public std::streambuf {
    int sync() override { return -1; }
};

TEST_F(Destination, StreamThatFailedFindsItsWayToTheFallback) {
    redirect();
    block_directory();
    test::CapturedStream errors(std::cerr);
    RefusingBuffer refusing;
    std::streambuf* const former = std::cout.rdbuf(&refusing);
    log("cannot be confirmed");
    log("fails the stream");
    log("is lost");
    EXPECT_EQ(errors.text(), "Логгер " + label + " в ошибочном состоянии.\n");
    clock.advance(K_INTERVAL);
    log("is lost too, but drives the check");
    log("is written");
    std::cout.clear();
    std::cout.rdbuf(former);
    EXPECT_EQ(logger.stats().path, fallback_path);
    EXPECT_THAT(messages_of(fallback_path), ElementsAre(lost(), "is written"));
}

TEST_F(Destination, FileOfExactlyTheLimitIsNotRotatedAndOneByteMoreIs) {
    redirect();
    fill_up_to(Logger::K_DEFAULT_MAX_FILE_SIZE);
    EXPECT_EQ(logger.stats().file_size_bytes, 1'000'000U);
    EXPECT_EQ(logger.stats().generation, 0U);
    EXPECT_FALSE(fs_tools::path_exists(path + ".0"));

    log("x");
    EXPECT_EQ(logger.stats().generation, 1U);
    EXPECT_EQ(logger.stats().line_count, 0U);
    EXPECT_EQ(text_of(path), "");
    EXPECT_GT(text_of(path + ".0").size(), 1'000'000U);
}

TEST_F(Destination, FileOneByteAboveTheLimitIsRotated) {
    redirect();
    fill_up_to(1'000'001);
    EXPECT_EQ(text_of(path + ".0").size(), 1'000'001U);
    EXPECT_EQ(text_of(path), "");
}

TEST_F(Destination, LimitOfZeroNeverRotates) {
    redirect();
    logger.set_max_file_size(0);
    fill_up_to(1'000'001);
    EXPECT_EQ(logger.stats().generation, 0U);
}

TEST_F(Destination, NextBackupNumberIsOneAboveTheHighestAndOtherNamesAreIgnored) {
    std::filesystem::create_directory(log_directory);
    for (auto const* suffix : {".3", ".9", ".old"}) {
        put_file(path + suffix, "x\n");
    }
    redirect();
    EXPECT_EQ(logger.stats().generation, 10U);
    fill_up_to(1'000'001);
    EXPECT_TRUE(fs_tools::is_reg(path + ".10"));
    EXPECT_TRUE(fs_tools::is_reg(path + ".old"));
    EXPECT_EQ(logger.stats().generation, 11U);
}

TEST_F(Destination, RotationKeepsTheFiveNewestBackups) {
    redirect();
    logger.set_max_file_size(1);
    for (int i = 0; i < 8; ++i) {
        log("line " + std::to_string(i));
    }
    auto backups = log_generations::existing(path);
    std::ranges::sort(backups);
    EXPECT_THAT(backups, ElementsAre(3U, 4U, 5U, 6U, 7U));
    EXPECT_THAT(messages_of(path + ".7"), ElementsAre("line 7"));
}

TEST_F(Destination, KeepingZeroGenerationsKeepsAll) {
    redirect();
    logger.set_max_file_size(1);
    logger.set_kept_generations(0);
    for (int i = 0; i < 8; ++i) {
        log("line");
    }
    EXPECT_THAT(log_generations::existing(path), SizeIs(8));
}

TEST_F(Destination, LineSinkNumbersBeginAgainWithEachGeneration) {
    std::vector<std::string> calls;
    redirect();
    logger.register_line_sink(
        [&calls](std::uint64_t number, std::string const& line, std::uint64_t generation) {
            calls.push_back(test::message_of(line) + " " + std::to_string(number) + " " +
                            std::to_string(generation));
        });
    log("a");
    logger.set_max_file_size(1);
    log("b"); // still belongs to the file that is rotated behind it
    logger.set_max_file_size(0);
    log("c");
    EXPECT_THAT(calls, ElementsAre("a 3 0", "b 4 0", "c 1 1"));
}

TEST_F(Destination, BackupIsReadByItsGenerationUntilItIsPruned) {
    redirect();
    logger.set_max_file_size(1);
    log("line 0");
    LogRange const kept = logger.read_lines(0, 1, 0);
    EXPECT_TRUE(kept.available);
    EXPECT_EQ(kept.total_lines, 3U);
    EXPECT_EQ(test::message_of(kept.lines.at(2)), "line 0");

    logger.set_kept_generations(1);
    log("line 1");
    LogRange const pruned = logger.read_lines(0, 1, 0);
    EXPECT_FALSE(pruned.available);
    EXPECT_THAT(pruned.lines, SizeIs(0));
    EXPECT_FALSE(logger.read_lines(99, 1, 0).available);
}

TEST_F(Destination, ReadingAfterARotationDoesNotUseTheFormerFilesIndex) {
    redirect();
    for (int i = 0; i < 600; ++i) {
        logger.log(LogLevel::INFO, "old ", i);
    }
    EXPECT_EQ(logger.read_lines(0, 1, 0).total_lines, 602U);
    logger.set_max_file_size(1);
    log("rotates");
    logger.set_max_file_size(0);
    for (int i = 1; i <= 700; ++i) {
        logger.log(LogLevel::INFO, "a new and longer line ", i);
    }
    LogRange const range = logger.read_lines(1, 514, 514);
    EXPECT_EQ(range.total_lines, 700U);
    EXPECT_EQ(test::message_of(range.lines.at(0)), "a new and longer line 514");
}

TEST_F(Destination, RotationThatFailsKeepsTheFileAndItsNumber) {
    redirect();
    std::filesystem::create_directories(path + ".0/not-empty"); // nothing can be renamed over it
    ASSERT_TRUE(logger.redirect_to_file(path));
    logger.flush();
    std::filesystem::create_directories(path + ".1/not-empty");
    logger.set_max_file_size(1);
    log("stays");
    EXPECT_EQ(logger.stats().generation, 1U);
    EXPECT_THAT(messages_of(path), Contains("stays"));
}

/// Every line that the threads logged, in each thread's order, without gaps or doubles.
void expect_complete(std::vector<std::string> const& messages, int threads, int lines_per_thread) {
    std::map<int, int> next;
    for (std::string const& message : messages) {
        int thread = -1;
        int number = -1;
        if (std::sscanf(message.c_str(), "hammer %d %d", &thread, &number) == 2) {
            ASSERT_EQ(number, next[thread]) << message;
            ++next[thread];
        }
    }
    for (int thread = 0; thread < threads; ++thread) {
        EXPECT_EQ(next[thread], lines_per_thread) << "thread " << thread;
    }
}

TEST_F(Destination, LinesLoggedDuringARedirectLandInTheFileOnceAndInOrder) {
    constexpr int K_THREADS = 4;
    constexpr int K_LINES_PER_THREAD = 40; // all of them fit into the pending lines
    for (int round = 0; round < 25; ++round) {
        std::string const file = directory / ("round-" + std::to_string(round));
        Logger hammered(label, LogLevel::TRACE, clock);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < K_THREADS; ++thread) {
            threads.emplace_back([&hammered, thread] {
                for (int i = 0; i < K_LINES_PER_THREAD; ++i) {
                    hammered.log(LogLevel::INFO, "hammer ", thread, " ", i);
                }
            });
        }
        ASSERT_TRUE(hammered.redirect_to_file(file));
        for (std::thread& thread : threads) {
            thread.join();
        }
        LogStats const stats = hammered.stats();
        auto const messages = messages_of(file);
        expect_complete(messages, K_THREADS, K_LINES_PER_THREAD);
        EXPECT_EQ(stats.line_count, messages.size());
    }
}

TEST_F(Destination, ReadersRotationAndRedirectsGoTogether) {
    redirect();
    logger.set_max_file_size(5'000);
    logger.set_kept_generations(0);
    std::thread writer([this] {
        for (int i = 0; i < 2'000; ++i) {
            logger.log(LogLevel::INFO, "hammer 0 ", i);
        }
    });
    std::string const other = directory / "other.log";
    for (int i = 0; i < 10; ++i) {
        LogStats const stats = logger.stats();
        std::ignore = logger.read_lines(stats.generation, 1, 0);
        ASSERT_TRUE(logger.redirect_to_file(i % 2 == 0 ? other : path));
    }
    writer.join();
    logger.flush();

    std::size_t total = 0;
    for (std::string const& base : {path, other}) {
        total += lines_of(base).size();
        for (std::uint64_t const generation : log_generations::existing(base)) {
            total += lines_of(log_generations::backup_path(base, generation)).size();
        }
    }
    EXPECT_EQ(total, 2'000U + 2U + 20U); // and two announcements for each redirect
}

} // namespace
} // namespace tessaron
