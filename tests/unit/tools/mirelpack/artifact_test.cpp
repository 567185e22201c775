#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/tools/mirelpack/sample_artifact.hpp"
#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/artifact_builder.hpp"
#include "tools/mirelpack/artifact_inspector.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace mirelpack {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

class ArtifactTest : public testing::Test {
protected:
    std::string program(std::string const& text) {
        return test::make_program_folder(directory_ / text, text);
    }
    ArtifactFacts facts(std::string const& path) { return inspect_artifact(path, "it"); }
    void expect_refused(BuildRequest const& request, std::string const& reason) {
        EXPECT_THAT([&] { build_artifact(request); }, ThrowsMessage<PackError>(HasSubstr(reason)));
        EXPECT_FALSE(tessaron::fs_tools::path_exists(request.output));
    }

    tessaron::test::TemporaryDirectory directory_;
    std::string out_ = directory_ / "out";
};

TEST_F(ArtifactTest, WhatIsBuiltPassesTheInspection) {
    auto const folder = program("app");
    ASSERT_TRUE(tessaron::write_file(folder + "/install.sh", "", 0));
    auto const built = build_artifact({folder, "bin/app", "a \"text\" with \xc3\xbc", out_});
    auto const known = facts(out_);
    EXPECT_EQ(known.sha256, built.sha256);
    EXPECT_EQ(known.executable, "bin/app");
    EXPECT_EQ(known.description, "a \"text\" with \xc3\xbc");
    EXPECT_EQ(known.file_count, 2U);
    EXPECT_TRUE(known.has_install_script);
    EXPECT_FALSE(known.has_uninstall_script);
    EXPECT_TRUE(known.warnings.empty());
}

TEST_F(ArtifactTest, ADescriptionIsOptional) {
    build_artifact({program("app"), "./bin/app", "", out_});
    EXPECT_EQ(facts(out_).manifest.as_object().count("description"), 0U);
    EXPECT_EQ(facts(out_).executable, "bin/app");
}

TEST_F(ArtifactTest, TheSameTreeGivesTheSameBytes) {
    auto const folder = program("app");
    build_artifact({folder, "bin/app", "", out_});
    build_artifact({folder, "bin/app", "", out_ + "2"});
    EXPECT_EQ(tessaron::read_file(out_), tessaron::read_file(out_ + "2"));
}

TEST_F(ArtifactTest, AnOutputInsideTheFolderIsNotPacked) {
    auto const folder = program("app");
    auto const first = build_artifact({folder, "bin/app", "", folder + "/out"});
    auto const second = build_artifact({folder, "bin/app", "", folder + "/out"});
    EXPECT_EQ(facts(folder + "/out").file_count, 1U);
    EXPECT_EQ(first.sha256, second.sha256);
}

TEST_F(ArtifactTest, TheExecutableMustBeAFileInside) {
    auto const folder = program("app");
    std::filesystem::create_symlink("/bin/sh", folder + "/outside");
    for (char const* executable : {"bin", "no", "outside"}) {
        expect_refused({folder, executable, "", out_}, "is not a file");
    }
    for (char const* executable : {"", ".", "/bin/sh", "bin/../bin/app"}) {
        expect_refused({folder, executable, "", out_}, "must be a path inside");
    }
}

TEST_F(ArtifactTest, TheExecutableMustBeExecutable) {
    auto const folder = program("app");
    chmod((folder + "/bin/app").c_str(), 0644);
    expect_refused({folder, "bin/app", "", out_}, "chmod +x");
}

TEST_F(ArtifactTest, TextThatJsonCannotHoldIsRefused) {
    auto const folder = program("app");
    expect_refused({folder, "bin/app", "\xff", out_}, "UTF-8");
    expect_refused({folder, "bin/\xff", "", out_}, "UTF-8");
}

TEST_F(ArtifactTest, TheInstallersOwnNamesMayNotStandAtTheTop) {
    for (char const* name : {"manifest.json", "payload.tar"}) {
        auto const folder = program(name + std::string("-app"));
        ASSERT_TRUE(tessaron::write_file(folder + "/" + name, "", 0));
        expect_refused({folder, "bin/app", "", out_}, name);
    }
}

TEST_F(ArtifactTest, AFolderThatIsNoneIsRefused) {
    expect_refused({directory_ / "no", "a", "", out_}, "is not a directory");
    expect_refused({program("app") + "/bin/app", "a", "", out_}, "is not a directory");
    expect_refused({program("app"), "bin/app", "", directory_ / "no/out"}, "No such file");
}

TEST_F(ArtifactTest, ASocketIsLeftOutWithAWarning) {
    auto const folder = program("app");
    tessaron::UniqueFd const socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder + "/socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(build_artifact({folder, "bin/app", "", out_}).warnings.size(), 1U);
    EXPECT_EQ(facts(out_).file_count, 1U);
}

TEST_F(ArtifactTest, EveryTruncationOfAnArtifactIsNoticed) {
    build_artifact({program("app"), "bin/app", "", out_});
    auto const whole = *tessaron::read_file(out_);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        ASSERT_TRUE(tessaron::write_file(out_, whole.substr(0, size), O_TRUNC));
        EXPECT_THROW(facts(out_), PackError) << size;
    }
}

TEST_F(ArtifactTest, ErrorsBeginWithTheNameTheUserKnows) {
    EXPECT_THAT([&] { facts(directory_ / "no"); },
                ThrowsMessage<PackError>("it: cannot open: No such file or directory"));
}

} // namespace
} // namespace mirelpack
