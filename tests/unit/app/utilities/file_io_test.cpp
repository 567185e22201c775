#include "app/utilities/file_io.hpp"

#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/app/utilities/run_in_child.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tessaron {
namespace {

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

mode_t permissions_of(std::string const& path) {
    struct stat entry {};
    EXPECT_EQ(stat(path.c_str(), &entry), 0);
    return entry.st_mode & 07777;
}

/// Replaces a file with 5,000 bytes in a child that can't write beyond `limit`.
bool replace_under_file_size_limit(std::string const& path, rlim_t limit) {
    return test::run_in_limited_child(RLIMIT_FSIZE, limit, [&] {
        signal(SIGXFSZ, SIG_IGN); // the write then fails with EFBIG
        return replace_file_durably(path, std::string(5000, 'n'));
    });
}

TEST(UniqueFd, ClosesWhatItHoldsOnce) {
    int number = -1;
    {
        UniqueFd const fd = open_file("/dev/null", O_RDONLY);
        ASSERT_TRUE(fd.is_open());
        number = fd.get();
    }
    EXPECT_FALSE(is_open(number));
}

TEST(UniqueFd, MoveHandsTheDescriptorOver) {
    UniqueFd first = open_file("/dev/null", O_RDONLY);
    int const number = first.get();
    UniqueFd second(std::move(first));
    EXPECT_FALSE(first.is_open()); // NOLINT(bugprone-use-after-move)
    UniqueFd third = open_file("/dev/null", O_RDONLY);
    int const replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), number);
    EXPECT_TRUE(is_open(number));
    EXPECT_FALSE(is_open(replaced));
    UniqueFd& same = third;
    third = std::move(same);
    EXPECT_TRUE(is_open(number));
}

TEST(UniqueFd, ResetLeavesErrnoAlone) {
    errno = ENOENT;
    UniqueFd(1'000'000).reset(); // closing fails with EBADF
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileIo, OpenedFilesAreCloseOnExec) {
    UniqueFd const fd = open_file("/dev/null", O_RDWR);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(FileIo, OpeningAMissingFileTellsWhy) {
    EXPECT_FALSE(open_file("/nonexistent/file", O_RDONLY).is_open());
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileIo, WrittenBytesAreReadBack) {
    test::TemporaryDirectory const directory;
    std::string bytes(100'000, 'x');
    bytes[5] = '\0';
    bytes += "\xff\n";
    ASSERT_TRUE(write_file(directory / "f", bytes, O_TRUNC));
    EXPECT_TRUE(read_file(directory / "f") == bytes);
}

TEST(FileIo, ExtraFlagsTruncateOrAppend) {
    test::TemporaryDirectory const directory;
    ASSERT_TRUE(write_file(directory / "f", "first", O_TRUNC, 0600));
    EXPECT_EQ(permissions_of(directory / "f"), 0600U);
    ASSERT_TRUE(write_file(directory / "f", "+more", O_APPEND));
    EXPECT_EQ(read_file(directory / "f"), "first+more");
    ASSERT_TRUE(write_file(directory / "f", "new", O_TRUNC));
    EXPECT_EQ(read_file(directory / "f"), "new");
}

TEST(FileIo, UnreadableIsNothingAndEmptyIsEmpty) {
    test::TemporaryDirectory const directory;
    EXPECT_EQ(read_file(directory / "missing"), std::nullopt);
    EXPECT_EQ(read_file(directory.path()), std::nullopt);
    ASSERT_TRUE(write_file(directory / "f", "", O_TRUNC));
    EXPECT_EQ(read_file(directory / "f"), "");
}

TEST(FileIo, FailedWritesAreReported) {
    EXPECT_FALSE(write_file("/dev/full", "x", 0));
    EXPECT_FALSE(write_file("/nonexistent/file", "x", O_TRUNC));
    EXPECT_FALSE(write_all(-1, "x"));
    EXPECT_TRUE(write_all(-1, ""));
}

TEST(FileIo, WriteAllGoesOnAfterPartialWrites) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    UniqueFd const read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    std::string const bytes(1 << 20, 'p'); // many times what a pipe holds
    std::jthread writer([&] {
        EXPECT_TRUE(write_all(write_end.get(), bytes));
        write_end.reset();
    });
    std::string received;
    std::string chunk(3000, '\0');
    ssize_t count = 0;
    while ((count = read(read_end.get(), chunk.data(), chunk.size())) > 0) {
        received.append(chunk, 0, static_cast<std::size_t>(count));
    }
    EXPECT_TRUE(received == bytes);
}

class ReplaceFileDurably : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(write_file(path_, "old", O_TRUNC)); }

    test::TemporaryDirectory directory_;
    std::string path_ = directory_ / "config.json";
    std::string temporary_ = path_ + ".tmp";
};

TEST_F(ReplaceFileDurably, NewContentsReplaceTheOldAndNothingElseIsLeft) {
    EXPECT_TRUE(replace_file_durably(path_, "new"));
    EXPECT_EQ(read_file(path_), "new");
    EXPECT_EQ(fs_tools::list_dir_fs(directory_.path()), std::vector<std::string>{"config.json"});
}

TEST_F(ReplaceFileDurably, MissingFileIsMade) {
    EXPECT_TRUE(replace_file_durably(directory_ / "fresh", "new", ".part"));
    EXPECT_EQ(read_file(directory_ / "fresh"), "new");
}

TEST_F(ReplaceFileDurably, LeftoverOfAnEarlierCrashIsOverwritten) {
    ASSERT_TRUE(write_file(temporary_, "a longer leftover", O_TRUNC));
    EXPECT_TRUE(replace_file_durably(path_, "new"));
    EXPECT_EQ(read_file(path_), "new");
    EXPECT_FALSE(fs_tools::path_exists(temporary_));
}

TEST_F(ReplaceFileDurably, PermissionsOfTheReplacedFileAreKept) {
    ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    EXPECT_TRUE(replace_file_durably(path_, "secret"));
    EXPECT_EQ(permissions_of(path_), 0600U);
}

TEST_F(ReplaceFileDurably, ReaderSeesOldOrNewContentsAndNeverAPart) {
    std::string const contents[] = {std::string(50'000, 'a'), std::string(70'000, 'b')};
    ASSERT_TRUE(replace_file_durably(path_, contents[0]));
    std::jthread const writer([&](std::stop_token const& stop) {
        for (std::size_t i = 0; !stop.stop_requested(); ++i) {
            EXPECT_TRUE(replace_file_durably(path_, contents[i % 2]));
        }
    });
    for (int i = 0; i < 300; ++i) {
        auto const seen = read_file(path_);
        EXPECT_TRUE(seen == contents[0] || seen == contents[1]);
    }
}

TEST_F(ReplaceFileDurably, FullDiskLeavesTheOldContentsAlone) {
    EXPECT_FALSE(replace_under_file_size_limit(path_, 1000));
    EXPECT_EQ(read_file(path_), "old");
    EXPECT_FALSE(fs_tools::path_exists(temporary_));
    // The same child with enough room succeeds.
    EXPECT_TRUE(replace_under_file_size_limit(path_, 10'000));
}

TEST_F(ReplaceFileDurably, WriteErrorLeavesTheOldContentsAlone) {
    ASSERT_EQ(symlink("/dev/full", temporary_.c_str()), 0);
    EXPECT_FALSE(replace_file_durably(path_, "new"));
    EXPECT_EQ(read_file(path_), "old");
    EXPECT_FALSE(fs_tools::path_exists(temporary_));
    EXPECT_TRUE(fs_tools::path_exists("/dev/full"));
}

TEST_F(ReplaceFileDurably, FailedRenameRemovesTheTemporaryFile) {
    std::string const folder = directory_ / "folder";
    ASSERT_TRUE(fs_tools::make_dir_once(folder, 0755));
    EXPECT_FALSE(replace_file_durably(folder, "new"));
    EXPECT_TRUE(fs_tools::is_dir(folder));
    EXPECT_FALSE(fs_tools::path_exists(folder + ".tmp"));
}

TEST_F(ReplaceFileDurably, TemporaryThatCannotBeOpenedIsNotRemoved) {
    ASSERT_TRUE(fs_tools::make_dir_once(temporary_, 0755));
    EXPECT_FALSE(replace_file_durably(path_, "new"));
    EXPECT_EQ(read_file(path_), "old");
    EXPECT_TRUE(fs_tools::is_dir(temporary_));
    EXPECT_FALSE(replace_file_durably("/nonexistent/file", "new"));
}

} // namespace
} // namespace tessaron
