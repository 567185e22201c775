#include "tools/mirelpack/StagedFile.hpp"

#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <gtest/gtest.h>

namespace mirelpack {
namespace {

class StagedFileTest : public testing::Test {
protected:
    std::vector<std::string> names() const {
        return tessaron::fs_tools::list_dir_fs(directory_.path());
    }

    tessaron::test::TemporaryDirectory directory_;
};

TEST_F(StagedFileTest, ItReplacesAFileInOneStep) {
    std::string const path = directory_ / "file";
    ASSERT_TRUE(tessaron::write_file(path, "old", 0));
    StagedFile file(directory_.path());
    ASSERT_TRUE(tessaron::write_all(file.fd(), "new"));
    EXPECT_EQ(tessaron::read_file(path), "old");
    file.commit(path);
    EXPECT_EQ(tessaron::read_file(path), "new");
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(StagedFileTest, UncommittedItLeavesNothing) {
    {
        StagedFile const file(directory_.path());
        ASSERT_TRUE(tessaron::write_all(file.fd(), "new"));
    }
    EXPECT_TRUE(names().empty());
}

TEST_F(StagedFileTest, ACommitThatFailsLeavesNothing) {
    {
        StagedFile file(directory_.path());
        EXPECT_THROW(file.commit(directory_ / "no/file"), PackError);
    }
    EXPECT_TRUE(names().empty());
}

TEST_F(StagedFileTest, AMissingFolderIsAnError) {
    EXPECT_THROW(StagedFile(directory_ / "no"), PackError);
}

} // namespace
} // namespace mirelpack
