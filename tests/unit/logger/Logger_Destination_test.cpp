#include "app/utilities/fs_tools.hpp"
#include "tests/support/RefusingBuffer.hpp"
#include "tests/unit/logger/DestinationFixture.hpp"

#include <algorithm>
#include <cstdio>
#include <gmock/gmock.h>
#include <map>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

using test::lines_of;
using test::messages_of;
using test::put_file;
using test::text_of;
using testing::ElementsAre;
using testing::SizeIs;

using Destination = test::DestinationFixture;

constexpr std::chrono::seconds K_INTERVAL = Logger::K_RECOVERY_CHECK_INTERVAL;
std::string const K_REDIRECTED = "Log output redirected here from a previous destination";

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

TEST_F(Destination, StreamThatFailedFindsItsWayToTheFallback) {
    redirect();
    block_directory();
    test::CapturedStream errors(std::cerr);
    test::RefusingBuffer refusing; // as a closed console is
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

} // namespace
} // namespace tessaron
