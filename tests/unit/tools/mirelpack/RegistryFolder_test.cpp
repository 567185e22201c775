#include "tools/mirelpack/RegistryFolder.hpp"

#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/tools/mirelpack/sample_artifact.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirelpack {
namespace {

using tessaron::fs_tools::path_exists;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

class RegistryFolderTest : public testing::Test {
protected:
    std::string artifact(std::string const& text) {
        return test::make_artifact(directory_.path(), text);
    }
    std::string read(std::string const& name) const {
        return tessaron::read_file(root_ + "/" + name).value_or("missing");
    }
    void write(std::string const& name, std::string const& text) {
        std::filesystem::create_directories(
            std::filesystem::path(root_ + "/" + name).parent_path());
        ASSERT_TRUE(tessaron::write_file(root_ + "/" + name, text, O_TRUNC));
    }
    std::vector<std::string> listed() const {
        std::vector<std::string> texts;
        for (auto const& id : folder_.list("")) {
            texts.push_back(id.text());
        }
        return texts;
    }

    tessaron::test::TemporaryDirectory directory_;
    std::string root_ = directory_ / "registry";
    RegistryFolder folder_{root_};
    BuildId id_{"n", "c", "1.0", "a"};
};

TEST_F(RegistryFolderTest, APublishedBuildIsListedAtEveryLevel) {
    auto const source = artifact("one");
    EXPECT_FALSE(folder_.publish(id_, source, false).already_there);
    EXPECT_EQ(read("packages.json"), R"({"packages":["n"]})");
    EXPECT_EQ(read("packages/n/channels.json"), R"({"channels":["c"]})");
    auto const manifest = read("packages/n/c/1.0/a/manifest.json");
    EXPECT_EQ(read("packages/n/c/versions.json"),
              R"({"versions":[{"arch":"a","manifest":)" + manifest + R"(,"version":"1.0"}]})");
    EXPECT_EQ(read("packages/n/c/1.0/a/artifact"), tessaron::read_file(source));
    EXPECT_FALSE(path_exists(root_ + "/.incoming"));
}

TEST_F(RegistryFolderTest, TheNewestVersionIsListedFirst) {
    for (char const* version : {"1.9", "1.10", "1.10-dev.1"}) {
        folder_.publish({"n", "c", version, "b"}, artifact("one"), false);
        folder_.publish({"n", "c", version, "a"}, artifact("one"), false);
    }
    EXPECT_THAT(listed(), ElementsAre("n c 1.10 a", "n c 1.10 b", "n c 1.10-dev.1 a",
                                      "n c 1.10-dev.1 b", "n c 1.9 a", "n c 1.9 b"));
}

TEST_F(RegistryFolderTest, TheSameBytesMayBePublishedAgain) {
    folder_.publish(id_, artifact("one"), false);
    EXPECT_TRUE(folder_.publish(id_, artifact("one"), false).already_there);
    EXPECT_THAT(listed(), ElementsAre("n c 1.0 a"));
}

TEST_F(RegistryFolderTest, OtherBytesNeedReplace) {
    folder_.publish(id_, artifact("one"), false);
    auto const before = read("packages/n/c/versions.json");
    EXPECT_THAT([&] { folder_.publish(id_, artifact("two"), false); },
                ThrowsMessage<PackError>(HasSubstr("--replace")));
    EXPECT_EQ(read("packages/n/c/versions.json"), before);
    EXPECT_FALSE(path_exists(root_ + "/.incoming/build"));

    folder_.publish(id_, artifact("two"), true);
    EXPECT_THAT(read("packages/n/c/versions.json"), HasSubstr("says two"));
    EXPECT_THAT(read("packages/n/c/1.0/a/manifest.json"), HasSubstr("says two"));
    EXPECT_EQ(read("packages/n/c/1.0/a/artifact"), tessaron::read_file(artifact("two")));
}

TEST_F(RegistryFolderTest, ADamagedArtifactChangesNothing) {
    auto const path = directory_ / "damaged";
    ASSERT_TRUE(tessaron::write_file(path, "no gzip", 0));
    EXPECT_THAT([&] { folder_.publish(id_, path, false); },
                ThrowsMessage<PackError>(path + ": not a gzip file"));
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_FALSE(path_exists(root_ + "/packages"));
}

TEST_F(RegistryFolderTest, ARemovedBuildLeavesNoTrace) {
    folder_.publish(id_, artifact("one"), false);
    folder_.publish({"n", "c", "1.0", "b"}, artifact("one"), false);
    folder_.remove(id_);
    EXPECT_THAT(listed(), ElementsAre("n c 1.0 b"));
    folder_.remove({"n", "c", "1.0", "b"});
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(read("packages.json"), R"({"packages":[]})");
    EXPECT_FALSE(path_exists(root_ + "/packages/n"));
}

TEST_F(RegistryFolderTest, RemovingTheLastBuildOfAChannelKeepsTheOthers) {
    folder_.publish(id_, artifact("one"), false);
    folder_.publish({"n", "d", "1.0", "a"}, artifact("one"), false);
    folder_.remove(id_);
    EXPECT_EQ(read("packages/n/channels.json"), R"({"channels":["d"]})");
    EXPECT_FALSE(path_exists(root_ + "/packages/n/c"));
    EXPECT_EQ(read("packages.json"), R"({"packages":["n"]})");
}

TEST_F(RegistryFolderTest, WhatIsNotThereCannotBeRemoved) {
    EXPECT_THAT([&] { folder_.remove(id_); }, ThrowsMessage<PackError>(HasSubstr("no registry")));
    folder_.publish(id_, artifact("one"), false);
    EXPECT_THAT(
        [&] {
            folder_.remove({"n", "c", "2.0", "a"});
        },
        ThrowsMessage<PackError>(HasSubstr("is not in the registry")));
}

// What a kill leaves at each stage, and what the next change makes of it.

constexpr char const* K_JOURNAL = R"({"name":"n","channel":"c","version":"1.0","arch":"a"})";

TEST_F(RegistryFolderTest, APublishKilledWhileCopyingIsSwept) {
    write(".incoming/build/artifact", "half");
    folder_.publish({"m", "c", "1.0", "a"}, artifact("one"), false);
    EXPECT_FALSE(path_exists(root_ + "/.incoming"));
    EXPECT_THAT(listed(), ElementsAre("m c 1.0 a"));
}

TEST_F(RegistryFolderTest, APublishKilledBeforeTheIndexesIsFinishedByTheNext) {
    folder_.publish(id_, artifact("one"), false);
    for (char const* index :
         {"packages.json", "packages/n/channels.json", "packages/n/c/versions.json"}) {
        ASSERT_TRUE(std::filesystem::remove(root_ + "/" + index));
    }
    write(".incoming/journal.json", K_JOURNAL);
    folder_.publish({"m", "c", "1.0", "a"}, artifact("one"), false);
    EXPECT_THAT(listed(), ElementsAre("m c 1.0 a", "n c 1.0 a"));
}

TEST_F(RegistryFolderTest, AReplacementKilledBetweenItsFilesIsFinishedByTheNext) {
    folder_.publish(id_, artifact("one"), false);
    write("packages/n/c/1.0/a/artifact", *tessaron::read_file(artifact("two")));
    write(".incoming/journal.json", K_JOURNAL);
    folder_.publish({"m", "c", "1.0", "a"}, artifact("one"), false);
    EXPECT_THAT(read("packages/n/c/versions.json"), HasSubstr("says two"));
    EXPECT_THAT(read("packages/n/c/1.0/a/manifest.json"), HasSubstr("says two"));
}

TEST_F(RegistryFolderTest, ARemovalKilledBehindItsMarkIsFinishedByTheNext) {
    folder_.publish(id_, artifact("one"), false);
    write("packages/n/c/1.0/a/.removed", "");
    write(".incoming/journal.json", K_JOURNAL);
    folder_.publish({"m", "c", "1.0", "a"}, artifact("one"), false);
    EXPECT_THAT(listed(), ElementsAre("m c 1.0 a"));
    EXPECT_FALSE(path_exists(root_ + "/packages/n"));
}

TEST_F(RegistryFolderTest, AJournalThatMakesNoSenseHoldsNothingUp) {
    for (char const* text : {"", "{", "[]", R"({"name":"../..","channel":"c"})"}) {
        write(".incoming/journal.json", text);
        EXPECT_NO_THROW(folder_.publish(id_, artifact("one"), false)) << text;
        EXPECT_FALSE(path_exists(root_ + "/.incoming"));
    }
}

TEST_F(RegistryFolderTest, AnIncompleteBuildIsNeitherListedNorInTheWay) {
    write("packages/n/c/1.0/a/manifest.json", "{}");
    write("packages/n/c/2.0/a/artifact", "no manifest");
    write("packages/n/c/.hidden/a/artifact", "");
    folder_.publish({"n", "c", "3.0", "a"}, artifact("one"), false);
    EXPECT_THAT(listed(), ElementsAre("n c 3.0 a"));
    folder_.publish(id_, artifact("one"), false);
    EXPECT_THAT(listed(), ElementsAre("n c 3.0 a", "n c 1.0 a"));
}

} // namespace
} // namespace mirelpack
