#include "logger/log_generations.hpp"

#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/logger/file_helpers.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using test::put_file;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

struct LogGenerations : testing::Test {
    void make(std::string const& name) { put_file(directory / name, "x"); }

    test::TemporaryDirectory directory;
    std::string const path = directory / "app.log";
};

TEST_F(LogGenerations, WithoutBackupsTheNextIsZero) {
    make("app.log");
    EXPECT_THAT(log_generations::existing(path), IsEmpty());
    EXPECT_EQ(log_generations::next(path), 0U);
}

TEST_F(LogGenerations, NextIsOneAboveTheHighestNumberNotTheLastName) {
    make("app.log.3");
    make("app.log.9");
    make("app.log.10");
    EXPECT_EQ(log_generations::next(path), 11U);
}

TEST_F(LogGenerations, OnlyNamesThatEndInDecimalDigitsAreBackups) {
    for (auto const* name : {"app.log.4", "app.log.old", "app.log.", "app.log.1x", "app.log.-1",
                             "app.log.+1", "app.log.0x1", "app.log.99999999999999999999",
                             "app.log.18446744073709551615", "other.log.7", "app.logs.8"}) {
        make(name);
    }
    EXPECT_THAT(log_generations::existing(path), ElementsAre(4U));
}

TEST_F(LogGenerations, MissingDirectoryHasNone) {
    EXPECT_EQ(log_generations::next(directory / "none/app.log"), 0U);
}

TEST_F(LogGenerations, PruneLeavesTheNewest) {
    for (auto const* name : {"app.log", "app.log.2", "app.log.9", "app.log.10", "app.log.old"}) {
        make(name);
    }
    log_generations::prune(path, 2);
    EXPECT_THAT(log_generations::existing(path), UnorderedElementsAre(9U, 10U));
    EXPECT_TRUE(fs_tools::is_reg(directory / "app.log"));
    EXPECT_TRUE(fs_tools::is_reg(directory / "app.log.old"));
}

TEST_F(LogGenerations, PruneToZeroKeepsAll) {
    make("app.log.1");
    make("app.log.2");
    log_generations::prune(path, 0);
    EXPECT_THAT(log_generations::existing(path), UnorderedElementsAre(1U, 2U));
}

TEST_F(LogGenerations, PruneOfFewerThanKeptDeletesNothing) {
    make("app.log.1");
    log_generations::prune(path, 5);
    EXPECT_THAT(log_generations::existing(path), ElementsAre(1U));
}

TEST_F(LogGenerations, BackupNameIsTheNumberBehindADot) {
    EXPECT_EQ(log_generations::backup_path("/d/app.log", 12), "/d/app.log.12");
}

} // namespace
} // namespace tessaron
