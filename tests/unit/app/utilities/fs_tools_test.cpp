#include "app/utilities/fs_tools.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tessaron::fs_tools {
namespace {

class FsTools : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(write_file(directory_ / "file", "12345", O_TRUNC));
        ASSERT_EQ(mkdir((directory_ / "folder").c_str(), 0755), 0);
        ASSERT_EQ(symlink("file", (directory_ / "file_link").c_str()), 0);
        ASSERT_EQ(symlink("folder", (directory_ / "folder_link").c_str()), 0);
        ASSERT_EQ(symlink("nowhere", (directory_ / "dangling").c_str()), 0);
    }

    test::TemporaryDirectory directory_;
};

std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
}

/// Makes a directory the current one for its own lifetime.
class WorkingDirectory {
public:
    explicit WorkingDirectory(std::string const& path) : before_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(before_); }
    WorkingDirectory(WorkingDirectory const&) = delete;
    WorkingDirectory& operator=(WorkingDirectory const&) = delete;

private:
    std::filesystem::path before_;
};

TEST_F(FsTools, DanglingSymbolicLinkExists) {
    EXPECT_TRUE(path_exists(directory_ / "dangling"));
    EXPECT_TRUE(path_exists(directory_ / "file"));
    EXPECT_FALSE(path_exists(directory_ / "nowhere"));
    EXPECT_FALSE(path_exists(""));
}

TEST_F(FsTools, LinkToADirectoryIsNoDirectory) {
    EXPECT_TRUE(is_dir(directory_ / "folder"));
    EXPECT_FALSE(is_dir(directory_ / "folder_link"));
    EXPECT_FALSE(is_dir(directory_ / "file"));
    EXPECT_FALSE(is_dir(directory_ / "nowhere"));
}

TEST_F(FsTools, LinkToARegularFileIsNoRegularFile) {
    EXPECT_TRUE(is_reg(directory_ / "file"));
    EXPECT_FALSE(is_reg(directory_ / "file_link"));
    EXPECT_FALSE(is_reg(directory_ / "folder"));
    EXPECT_FALSE(is_reg("/dev/null"));
}

TEST_F(FsTools, FileSizeFollowsLinks) {
    std::error_code error = std::make_error_code(std::errc::io_error);
    EXPECT_EQ(file_size(directory_ / "file", error), 5U);
    EXPECT_FALSE(error);
    EXPECT_EQ(file_size(directory_ / "file_link", error), 5U);
    EXPECT_FALSE(error);
}

TEST_F(FsTools, FileSizeOfAMissingFileSetsTheError) {
    std::error_code error;
    EXPECT_EQ(file_size(directory_ / "dangling", error), 0U);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(FsTools, MakeDirOnceIsTrueAgainForAnExistingDirectory) {
    EXPECT_TRUE(make_dir_once(directory_ / "new", 0700));
    EXPECT_TRUE(is_dir(directory_ / "new"));
    EXPECT_TRUE(make_dir_once(directory_ / "new", 0700));
}

TEST_F(FsTools, MakeDirOnceMakesNoParentsAndReplacesNothing) {
    EXPECT_FALSE(make_dir_once(directory_ / "a/b", 0755));
    EXPECT_FALSE(path_exists(directory_ / "a"));
    EXPECT_FALSE(make_dir_once(directory_ / "file", 0755));
    EXPECT_FALSE(make_dir_once(directory_ / "dangling", 0755));
    EXPECT_TRUE(is_reg(directory_ / "file"));
}

TEST_F(FsTools, MakeDirOnceIsTrueForEveryoneInARace) {
    for (int round = 0; round < 50; ++round) {
        std::string const path = directory_ / ("race" + std::to_string(round));
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] { EXPECT_TRUE(make_dir_once(path, 0755)); });
        }
    }
}

TEST_F(FsTools, DirNameIsWhatStandsBeforeTheLastSlash) {
    EXPECT_EQ(dir_name("/a/b/c"), "/a/b");
    EXPECT_EQ(dir_name("/a/b/"), "/a/b");
    EXPECT_EQ(dir_name("/a"), "/");
    EXPECT_EQ(dir_name("/"), "/");
}

TEST_F(FsTools, DirNameIsMadeAbsoluteWithTheCurrentDirectory) {
    WorkingDirectory const inside(directory_.path());
    std::string const here = std::filesystem::current_path();
    EXPECT_EQ(dir_name(""), here);
    EXPECT_EQ(dir_name("a/b"), here + "/a");
    EXPECT_EQ(dir_name("a"), here + "/.");
}

TEST_F(FsTools, DirNameOfNothingIsADotWhenTheCurrentDirectoryIsGone) {
    std::string const doomed = directory_ / "doomed";
    ASSERT_TRUE(make_dir_once(doomed, 0755));
    WorkingDirectory const inside(doomed);
    ASSERT_EQ(rmdir(doomed.c_str()), 0);
    EXPECT_EQ(dir_name(""), ".");
}

TEST_F(FsTools, FileNameIsWhatStandsBehindTheLastSlash) {
    EXPECT_EQ(file_name("/a/b.txt"), "b.txt");
    EXPECT_EQ(file_name("b.txt"), "b.txt");
    EXPECT_EQ(file_name("/a/"), "");
    EXPECT_EQ(file_name(""), "");
}

TEST_F(FsTools, JoinPathAddsASlashOnlyWhereOneIsMissing) {
    EXPECT_EQ(join_path("a", "b"), "a/b");
    EXPECT_EQ(join_path("a/", "b"), "a/b");
    EXPECT_EQ(join_path("/", "b"), "/b");
    EXPECT_EQ(join_path("", "b"), "b");
    EXPECT_EQ(join_path("a", ""), "a/");
}

TEST_F(FsTools, ListDirHasAllNamesButTheDots) {
    ASSERT_TRUE(write_file(directory_ / ".hidden", "", O_TRUNC));
    EXPECT_EQ(sorted(list_dir_fs(directory_.path())),
              (std::vector<std::string>{".hidden", "dangling", "file", "file_link", "folder",
                                        "folder_link"}));
}

TEST_F(FsTools, ListDirKeepsNamesThatBeginWithThePrefix) {
    EXPECT_EQ(sorted(list_dir_fs(directory_.path(), "file")),
              (std::vector<std::string>{"file", "file_link"}));
    EXPECT_TRUE(list_dir_fs(directory_.path(), "ile").empty());
}

TEST_F(FsTools, ListDirsHasDirectoriesOnly) {
    EXPECT_EQ(list_dirs(directory_.path()), std::vector<std::string>{"folder"});
}

TEST_F(FsTools, ListingWhatIsNoDirectoryIsEmpty) {
    EXPECT_TRUE(list_dir_fs(directory_ / "file").empty());
    EXPECT_TRUE(list_dirs(directory_ / "nowhere").empty());
}

} // namespace
} // namespace tessaron::fs_tools
