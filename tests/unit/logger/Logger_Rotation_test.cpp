#include "app/utilities/fs_tools.hpp"
#include "logger/log_generations.hpp"
#include "tests/unit/logger/DestinationFixture.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <thread>
#include <tuple>
#include <vector>

namespace tessaron {
namespace {

using test::lines_of;
using test::messages_of;
using test::put_file;
using test::text_of;
using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;

using Rotation = test::DestinationFixture;

TEST_F(Rotation, FileOfExactlyTheLimitIsNotRotatedAndOneByteMoreIs) {
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

TEST_F(Rotation, FileOneByteAboveTheLimitIsRotated) {
    redirect();
    fill_up_to(1'000'001);
    EXPECT_EQ(text_of(path + ".0").size(), 1'000'001U);
    EXPECT_EQ(text_of(path), "");
}

TEST_F(Rotation, LimitOfZeroNeverRotates) {
    redirect();
    logger.set_max_file_size(0);
    fill_up_to(1'000'001);
    EXPECT_EQ(logger.stats().generation, 0U);
}

TEST_F(Rotation, NextBackupNumberIsOneAboveTheHighestAndOtherNamesAreIgnored) {
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

TEST_F(Rotation, RotationKeepsTheFiveNewestBackups) {
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

TEST_F(Rotation, KeepingZeroGenerationsKeepsAll) {
    redirect();
    logger.set_max_file_size(1);
    logger.set_kept_generations(0);
    for (int i = 0; i < 8; ++i) {
        log("line");
    }
    EXPECT_THAT(log_generations::existing(path), SizeIs(8));
}

TEST_F(Rotation, LineSinkNumbersBeginAgainWithEachGeneration) {
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

TEST_F(Rotation, BackupIsReadByItsGenerationUntilItIsPruned) {
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

TEST_F(Rotation, ReadingAfterARotationDoesNotUseTheFormerFilesIndex) {
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

TEST_F(Rotation, RotationThatFailsKeepsTheFileAndItsNumber) {
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

TEST_F(Rotation, ReadersRotationAndRedirectsGoTogether) {
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
