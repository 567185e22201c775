#include "tools/mirelpack/durable_files.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>

namespace mirelpack {
namespace {

class DurableFilesTest : public testing::Test {
protected:
    std::string write(std::string const& name, std::string const& text) {
        EXPECT_TRUE(tessaron::write_file(directory_ / name, text, O_TRUNC));
        return directory_ / name;
    }

    tessaron::test::TemporaryDirectory directory_;
};

TEST_F(DurableFilesTest, DirectoriesAreMadeWithTheirParents) {
    make_directories(directory_ / "a/b/c");
    make_directories(directory_ / "a/b/c");
    EXPECT_TRUE(tessaron::fs_tools::is_dir(directory_ / "a/b/c"));
}

TEST_F(DurableFilesTest, AFileInTheWayOfADirectoryIsAnError) {
    write("a", "");
    EXPECT_THROW(make_directories(directory_ / "a/b"), PackError);
}

TEST_F(DurableFilesTest, ALinkToADirectoryIsADirectory) {
    make_directories(directory_ / "real");
    std::filesystem::create_directory_symlink("real", directory_ / "link");
    make_directories(directory_ / "link");
    make_directories(directory_ / "link/below");
    EXPECT_TRUE(tessaron::fs_tools::is_dir(directory_ / "real/below"));
}

TEST_F(DurableFilesTest, ACopyHoldsTheSameBytes) {
    std::string const big(3 * 1024 * 1024 + 7, 'x');
    copy_file(write("a", big), directory_ / "b");
    EXPECT_EQ(tessaron::read_file(directory_ / "b"), big);
    EXPECT_TRUE(same_contents(directory_ / "a", directory_ / "b"));
}

TEST_F(DurableFilesTest, CopyingSaysWhichFileIsMissing) {
    EXPECT_THROW(copy_file(directory_ / "no", directory_ / "b"), PackError);
    EXPECT_THROW(copy_file(write("a", "x"), directory_ / "no/b"), PackError);
}

TEST_F(DurableFilesTest, DifferentContentsAreToldApart) {
    std::string const a = write("a", "one");
    EXPECT_FALSE(same_contents(a, write("b", "two")));
    EXPECT_FALSE(same_contents(a, write("b", "one more")));
    EXPECT_FALSE(same_contents(a, write("b", "")));
    EXPECT_FALSE(same_contents(a, directory_ / "no"));
}

TEST_F(DurableFilesTest, WhatIsGoneCountsAsRemoved) {
    make_directories(directory_ / "a/b");
    remove_tree(directory_ / "a");
    remove_tree(directory_ / "a");
    EXPECT_FALSE(tessaron::fs_tools::path_exists(directory_ / "a"));
}

} // namespace
} // namespace mirelpack
