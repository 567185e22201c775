#pragma once

#include "MirelClientApp/updates/SelfUpdater.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/TestHttpServer.hpp"
#include "tests/support/artifact_builder.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace mirelclient {

/// A program file in a directory of its own, and an updater of it whose registry is a real server.
class SelfUpdaterTest : public testing::Test {
protected:
    static constexpr char const* K_OLD = "the program as it was";

    SelfUpdaterTest() {
        tessaron::test::write_text(program, K_OLD);
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    }

    /// Every test ends without a trace in the work directory.
    void TearDown() override { EXPECT_FALSE(std::filesystem::exists(work_dir)); }

    tessaron::test::ArtifactBuilder artifact() {
        return tessaron::test::ArtifactBuilder(scratch_ /
                                               ("artifact-" + std::to_string(++artifacts_)));
    }
    /// Offers the file as the build of a version.
    void publish(std::string const& version, std::string const& path) {
        server.answer(artifact_path(version), {tessaron::test::read_text(path)});
    }
    static std::string artifact_path(std::string const& version) {
        return "/api/packages/mirelclient/main/" + version + "/cpu-os/artifact";
    }

    /// Its restarts are in `restarts`.
    SelfUpdater updater_of(std::string const& program_path) {
        return {registry,
                "mirelclient",
                "cpu-os",
                "0.0.0",
                [this](std::string const& reason) {
                    EXPECT_FALSE(std::filesystem::exists(work_dir));
                    restarts.push_back(reason);
                },
                program_path};
    }

    void expect_nothing_has_changed() const {
        EXPECT_EQ(tessaron::test::read_text(program), K_OLD);
        EXPECT_EQ(std::filesystem::status(program).permissions(),
                  std::filesystem::perms::owner_all);
        EXPECT_FALSE(std::filesystem::exists(program + ".new"));
        EXPECT_FALSE(std::filesystem::exists(work_dir));
        EXPECT_TRUE(restarts.empty());
    }

    std::string const work_dir = "/tmp/mirelclient-self-update-" + std::to_string(getpid());
    tessaron::test::TemporaryDirectory directory;
    std::string const program = directory / "program";
    tessaron::test::TestHttpServer server;
    RegistryClient registry{server.url()};
    std::vector<std::string> restarts;
    SelfUpdater updater{updater_of(program)};

private:
    tessaron::test::TemporaryDirectory scratch_;
    int artifacts_ = 0;
};

} // namespace mirelclient
