#include "mirelserver/RegistryFolder.hpp"

#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace mirelserver {
namespace {

class RegistryFolderTest : public testing::Test {
protected:
    void write(std::string const& name, std::string const& text) {
        std::filesystem::create_directories(std::filesystem::path(directory_ / name).parent_path());
        ASSERT_TRUE(tessaron::write_file(directory_ / name, text, O_TRUNC));
    }

    tessaron::test::TemporaryDirectory directory_;
    RegistryFolder folder_{directory_.path()};
};

TEST_F(RegistryFolderTest, AFileOpensWithItsSize) {
    write("a/b/c", "hello");
    auto const file = folder_.open({"a", "b", "c"});
    ASSERT_TRUE(file);
    EXPECT_EQ(file->size, 5U);
    EXPECT_NE(fcntl(file->fd.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(RegistryFolderTest, WhatIsNoRegularFileDoesNotOpen) {
    write("a/b", "hello");
    ASSERT_EQ(mkfifo((directory_ / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(folder_.open({}));
    EXPECT_FALSE(folder_.open({"a"}));
    EXPECT_FALSE(folder_.open({"no"}));
    EXPECT_FALSE(folder_.open({"no", "b"}));
    EXPECT_FALSE(folder_.open({"a", "b", "c"}));
    EXPECT_FALSE(folder_.open({"pipe"}));
}

TEST_F(RegistryFolderTest, NoSymbolicLinkBelowTheFolderIsFollowed) {
    write("a/b", "hello");
    std::filesystem::create_symlink("b", directory_ / "a/link");
    std::filesystem::create_directory_symlink("a", directory_ / "linked");
    EXPECT_FALSE(folder_.open({"a", "link"}));
    EXPECT_FALSE(folder_.open({"linked", "b"}));
}

TEST_F(RegistryFolderTest, TheFolderItselfMayBeALink) {
    write("real/a", "hello");
    std::filesystem::create_directory_symlink("real", directory_ / "link");
    EXPECT_TRUE(RegistryFolder(directory_ / "link").open({"a"}));
}

TEST_F(RegistryFolderTest, AFolderThatIsMissingOpensNothing) {
    EXPECT_FALSE(RegistryFolder(directory_ / "no").open({"a"}));
}

} // namespace
} // namespace mirelserver
