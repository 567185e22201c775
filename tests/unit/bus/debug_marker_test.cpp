#include "bus/debug_marker.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tessaron::bus {
namespace {

using test::TemporaryDirectory;

std::string first_line(std::uint32_t address) {
    return "address=" + std::to_string(address) + " pid=" + std::to_string(getpid()) + "\n";
}

TEST(DebugMarker, KeepsLettersDigitsAndThreeSigns) {
    EXPECT_EQ(sanitize_debug_name("aZ09-_."), "aZ09-_.");
    EXPECT_EQ(sanitize_debug_name("a/b c*d"), "a_b_c_d");
    EXPECT_EQ(sanitize_debug_name("\xc3\xa4"), "__");
    EXPECT_EQ(sanitize_debug_name(std::string_view("\0", 1)), "_");
    EXPECT_EQ(sanitize_debug_name(""), "unnamed");
}

TEST(DebugMarker, IsNamedByTheIdentity) {
    auto const identity = proto::bus::make_identity("my node", "my/program", 1);
    EXPECT_EQ(debug_name(identity), "my_node");
    EXPECT_EQ(debug_app_name(identity), "my_program");
    EXPECT_EQ(debug_name({}), "unnamed");
}

TEST(DebugMarker, LiesInADirectoryOfItsProgram) {
    EXPECT_EQ(bus_debug_root("my program"), "/tmp/tessaron/my_program/bus");
    EXPECT_EQ(bus_debug_root("", "/base"), "/base/unnamed/bus");
}

TEST(DebugMarker, TellsAddressProcessAndText) {
    TemporaryDirectory const tmp;
    touch_debug_marker("program", "node", 200, "more\n", tmp / "tessaron");
    EXPECT_EQ(read_file(tmp / "tessaron/program/bus/node"), first_line(200) + "more\n");
}

TEST(DebugMarker, TakesThePlaceOfALongerOne) {
    TemporaryDirectory const tmp;
    touch_debug_marker("program", "node", 4294967295U, "a long text\n", tmp / "tessaron");
    touch_debug_marker("program", "node", 1, "", tmp / "tessaron");
    EXPECT_EQ(read_file(tmp / "tessaron/program/bus/node"), first_line(1));
}

TEST(DebugMarker, GoesAwayWhenItIsThere) {
    TemporaryDirectory const tmp;
    remove_debug_marker("program", "node", tmp / "tessaron");
    EXPECT_FALSE(std::filesystem::exists(tmp / "tessaron"));
    touch_debug_marker("program", "node", 1, "", tmp / "tessaron");
    touch_debug_marker("program", "other", 2, "", tmp / "tessaron");
    remove_debug_marker("program", "node", tmp / "tessaron");
    EXPECT_FALSE(std::filesystem::exists(tmp / "tessaron/program/bus/node"));
    EXPECT_TRUE(std::filesystem::exists(tmp / "tessaron/program/bus/other"));
}

TEST(DebugMarker, CannotBeWrittenWhereItsDirectoryIsAFile) {
    TemporaryDirectory const tmp;
    ASSERT_TRUE(write_file(tmp / "tessaron", "mine", O_TRUNC));
    touch_debug_marker("program", "node", 1, "", tmp / "tessaron");
    remove_debug_marker("program", "node", tmp / "tessaron");
    EXPECT_EQ(read_file(tmp / "tessaron"), "mine");
}

TEST(DebugMarker, FollowsNoLinkToAFileOrDirectory) {
    TemporaryDirectory const tmp;
    ASSERT_TRUE(write_file(tmp / "victim", "precious", O_TRUNC));
    std::filesystem::create_directories(tmp / "tessaron/program/bus");
    std::filesystem::create_symlink(tmp / "victim", tmp / "tessaron/program/bus/node");
    touch_debug_marker("program", "node", 1, "", tmp / "tessaron");
    EXPECT_EQ(read_file(tmp / "victim"), "precious");

    std::filesystem::create_directory(tmp / "elsewhere");
    std::filesystem::create_directory_symlink(tmp / "elsewhere", tmp / "tessaron/linked");
    touch_debug_marker("linked", "node", 1, "", tmp / "tessaron");
    EXPECT_TRUE(std::filesystem::is_empty(tmp / "elsewhere"));
}

TEST(DebugMarker, IsNotWrittenIntoAPipe) {
    TemporaryDirectory const tmp;
    std::filesystem::create_directories(tmp / "tessaron/program/bus");
    std::string const pipe = tmp / "tessaron/program/bus/node";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    UniqueFd const reader = open_file(pipe, O_RDONLY | O_NONBLOCK);
    touch_debug_marker("program", "node", 1, "", tmp / "tessaron");
    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

TEST(DebugMarker, StaysWithinItsDirectory) {
    TemporaryDirectory const tmp;
    touch_debug_marker("..", "node", 1, "", tmp / "tessaron");
    touch_debug_marker("program", "..", 1, "", tmp / "tessaron");
    touch_debug_marker("program", "../../escaped", 1, "", tmp / "tessaron");
    EXPECT_FALSE(std::filesystem::exists(tmp / "bus"));
    EXPECT_FALSE(std::filesystem::exists(tmp / "tessaron/escaped"));
}

} // namespace
} // namespace tessaron::bus
