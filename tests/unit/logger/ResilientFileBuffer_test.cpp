#include "logger/ResilientFileBuffer.hpp"

#include "app/utilities/fs_tools.hpp"
#include "logger/ConsoleStreamBuffer.hpp"
#include "tests/support/CapturedStream.hpp"
#include "tests/support/RefusingBuffer.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/logger/file_helpers.hpp"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/resource.h>
#include <unistd.h>

namespace tessaron {
namespace {

using test::put_file;
using test::RefusingBuffer;
using test::text_of;

struct ResilientFile : testing::Test {
    /// Removes the directory of the file, and puts a file in its way.
    void lose_directory() {
        std::filesystem::remove_all(folder);
        put_file(folder, "in the way");
    }
    void restore_directory() {
        std::filesystem::remove(folder);
        std::filesystem::create_directory(folder);
    }
    static std::streamsize put(ResilientFileBuffer& buffer, std::string_view text) {
        std::streamsize const taken =
            buffer.sputn(text.data(), static_cast<std::streamsize>(text.size()));
        buffer.confirm();
        return taken;
    }

    test::TemporaryDirectory directory;
    std::string const folder = directory / "logs";
    std::string const path = folder + "/app.log";
    bool const made = std::filesystem::create_directory(folder);
    test::CapturedStream console{std::cout};
};

TEST_F(ResilientFile, AppendsToWhatIsThere) {
    put_file(path, "old\n");
    ResilientFileBuffer buffer(path);
    ASSERT_TRUE(buffer.is_open());
    EXPECT_EQ(put(buffer, "new\n"), 4);
    EXPECT_EQ(buffer.sputc('c'), 'c');
    EXPECT_EQ(text_of(path), "old\nnew\nc");
    EXPECT_EQ(buffer.size(), 9U);
    EXPECT_EQ(console.text(), "");
}

TEST_F(ResilientFile, CountBelowOneWritesNothing) {
    ResilientFileBuffer buffer(path);
    EXPECT_EQ(buffer.sputn("x", 0), 0);
    EXPECT_EQ(buffer.sputn("x", -1), 0);
    EXPECT_EQ(text_of(path), "");
}

TEST_F(ResilientFile, DescriptorIsNotPassedToChildren) {
    ResilientFileBuffer buffer(path);
    int found = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == path) {
            ++found;
            int const fd = std::stoi(entry.path().filename());
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(ResilientFile, DeletedFileIsMadeAgainAndGetsTheWholeWrite) {
    ResilientFileBuffer buffer(path);
    put(buffer, "before\n");
    std::filesystem::remove(path);
    EXPECT_EQ(put(buffer, "after\n"), 6);
    EXPECT_EQ(text_of(path), "after\n");
    EXPECT_FALSE(buffer.is_degraded_to_console());
    EXPECT_EQ(console.text(), "");
}

TEST_F(ResilientFile, AllBytesSinceTheLastConfirmationAreWrittenAgain) {
    ResilientFileBuffer buffer(path);
    put(buffer, "confirmed\n");
    buffer.sputn("one\n", 4);
    std::filesystem::remove(path);
    buffer.sputn("two\n", 4);
    EXPECT_FALSE(fs_tools::path_exists(path));
    buffer.confirm();
    EXPECT_EQ(text_of(path), "one\ntwo\n");
    EXPECT_EQ(buffer.size(), 8U);
    EXPECT_TRUE(buffer.take_reopened());
    EXPECT_FALSE(buffer.take_reopened());
    buffer.confirm();
    EXPECT_EQ(text_of(path), "one\ntwo\n");
}

TEST_F(ResilientFile, ManyBytesAreConfirmedWithoutBeingAsked) {
    ResilientFileBuffer buffer(path);
    std::filesystem::remove(path);
    std::string const block(ResilientFileBuffer::K_UNCONFIRMED_LIMIT / 2, 'x');
    auto const size = static_cast<std::streamsize>(block.size());
    buffer.sputn(block.data(), size);
    EXPECT_FALSE(fs_tools::path_exists(path));
    buffer.sputn(block.data(), size);
    EXPECT_EQ(text_of(path), block + block);
}

TEST_F(ResilientFile, DeletedFileIsNoticedBeforeItIsRotated) {
    ResilientFileBuffer buffer(path);
    std::filesystem::remove(path);
    buffer.sputn("kept\n", 5);
    EXPECT_TRUE(buffer.rotate(path + ".0"));
    EXPECT_EQ(text_of(path + ".0"), "kept\n");
    EXPECT_EQ(text_of(path), "");
}

TEST_F(ResilientFile, LostDirectorySendsTheBytesToTheConsole) {
    ResilientFileBuffer buffer(path);
    lose_directory();
    EXPECT_EQ(put(buffer, "homeless\n"), 9);
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_TRUE(buffer.is_degraded_to_console());
    EXPECT_EQ(buffer.size(), std::nullopt);
    EXPECT_EQ(console.text(), "homeless\n");
}

TEST_F(ResilientFile, WriteAfterTheDirectoryIsBackEndsTheDegradedState) {
    ResilientFileBuffer buffer(path);
    lose_directory();
    put(buffer, "homeless\n");
    EXPECT_FALSE(buffer.take_reopened());
    restore_directory();
    EXPECT_EQ(put(buffer, "home\n"), 5);
    EXPECT_FALSE(buffer.is_degraded_to_console());
    EXPECT_TRUE(buffer.take_reopened());
    EXPECT_EQ(text_of(path), "home\n");
}

TEST_F(ResilientFile, SyncAfterTheDirectoryIsBackEndsTheDegradedState) {
    ResilientFileBuffer buffer(path);
    lose_directory();
    put(buffer, "homeless\n");
    restore_directory();
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_FALSE(buffer.is_degraded_to_console());
    EXPECT_TRUE(buffer.is_open());
}

TEST_F(ResilientFile, FullDeviceIsDegradedUntilAWriteSucceeds) {
    ResilientFileBuffer buffer("/dev/full");
    ASSERT_TRUE(buffer.is_open());
    EXPECT_EQ(put(buffer, "no room\n"), 8);
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_TRUE(buffer.is_degraded_to_console());
    EXPECT_EQ(console.text(), "no room\n");
}

TEST_F(ResilientFile, PartialWriteGoesOnWhereItStopped) {
    ResilientFileBuffer buffer(path);
    put(buffer, "12345");
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &former), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = former;
    limit.rlim_cur = 8;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::streamsize const written = put(buffer, "6789abc");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &former), 0);
    std::signal(SIGXFSZ, handler);

    EXPECT_EQ(written, 7);
    EXPECT_EQ(text_of(path), "12345678");
    EXPECT_EQ(console.text(), "9abc");
    EXPECT_TRUE(buffer.is_degraded_to_console());
}

TEST_F(ResilientFile, WriteFailsOnlyIfTheConsoleRefusesToo) {
    lose_directory();
    ResilientFileBuffer buffer(path);
    RefusingBuffer refusing;
    std::streambuf* const former = std::cout.rdbuf(&refusing);
    std::streamsize const written = put(buffer, "nowhere");
    int const synced = buffer.pubsync();
    auto const character = buffer.sputc('x');
    std::cout.clear();
    std::cout.rdbuf(former);
    EXPECT_EQ(written, 0);
    EXPECT_EQ(synced, -1);
    EXPECT_EQ(character, std::char_traits<char>::eof());
}

TEST_F(ResilientFile, UnopenableFileIsNotOpen) {
    lose_directory();
    ResilientFileBuffer const buffer(path);
    EXPECT_FALSE(buffer.is_open());
}

TEST_F(ResilientFile, RotateRenamesAndBeginsAnew) {
    ResilientFileBuffer buffer(path);
    put(buffer, "old\n");
    EXPECT_TRUE(buffer.rotate(path + ".0"));
    put(buffer, "new\n");
    EXPECT_EQ(text_of(path + ".0"), "old\n");
    EXPECT_EQ(text_of(path), "new\n");
}

TEST_F(ResilientFile, FailedRotationIsToldAndWritingGoesOn) {
    ResilientFileBuffer buffer(path);
    put(buffer, "old\n");
    EXPECT_FALSE(buffer.rotate(directory / "none/app.log.0"));
    put(buffer, "new\n");
    EXPECT_EQ(text_of(path), "old\nnew\n");
}

TEST_F(ResilientFile, TruncateEmptiesTheFileAndKeepsItOpen) {
    ResilientFileBuffer buffer(path);
    put(buffer, "old\n");
    EXPECT_TRUE(buffer.truncate());
    EXPECT_EQ(text_of(path), "");
    put(buffer, "new\n");
    EXPECT_EQ(text_of(path), "new\n");
}

TEST_F(ResilientFile, AppendsTheContentsOfAnotherFile) {
    put_file(directory / "source", std::string(200'000, 's'));
    put_file(path, "first\n");
    ResilientFileBuffer buffer(path);
    EXPECT_TRUE(buffer.append_contents_of(directory / "source"));
    EXPECT_EQ(text_of(path), "first\n" + std::string(200'000, 's'));
}

TEST_F(ResilientFile, FailedAppendLeavesTheFileAsLongAsItWas) {
    put_file(directory / "source", "a source of some length");
    put_file(path, "first\n");
    ResilientFileBuffer buffer(path);
    EXPECT_FALSE(buffer.append_contents_of(directory / "none"));
    EXPECT_FALSE(buffer.append_contents_of(directory.path())); // opens, but cannot be read

    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &former), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = former;
    limit.rlim_cur = 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    bool const appended = buffer.append_contents_of(directory / "source");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &former), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_FALSE(appended);
    EXPECT_EQ(text_of(path), "first\n");
}

TEST(ConsoleStreamBuffer, ForwardsToTheStandardOutput) {
    test::CapturedStream console(std::cout);
    ConsoleStreamBuffer buffer;
    std::ostream stream(&buffer);
    stream << "text" << std::flush;
    stream.put('c');
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(console.text(), "textc");
}

TEST(ConsoleStreamBuffer, PassesOnARefusal) {
    RefusingBuffer refusing;
    std::streambuf* const former = std::cout.rdbuf(&refusing);
    ConsoleStreamBuffer buffer;
    std::streamsize const written = buffer.sputn("x", 1);
    int const synced = buffer.pubsync();
    std::cout.rdbuf(former);
    EXPECT_EQ(written, 0);
    EXPECT_EQ(synced, -1);
}

} // namespace
} // namespace tessaron
