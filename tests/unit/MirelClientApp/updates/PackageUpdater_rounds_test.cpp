// Updates of one package at the same time, with a real registry client, a real package service and
// real artifacts: whatever their order, the package ends whole.
#include "MirelClientApp/remote/RegistryClient.hpp"
#include "MirelClientApp/updates/PackageUpdater.hpp"
#include "app/utilities/json_value.hpp"
#include "package/PackageManagerService.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/TestHttpServer.hpp"
#include "tests/support/artifact_builder.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace mirelclient {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tessaron::PackageManagerReply;
using tessaron::PackageManagerService;
using tessaron::json::Value;
using tessaron::test::ArtifactBuilder;
using tessaron::test::read_text;
using tessaron::test::TemporaryDirectory;
using tessaron::test::TestHttpServer;
using Request = PackageUpdater::Request;

constexpr int K_ROUNDS = 15;

class PackageUpdaterRounds : public testing::Test {
protected:
    PackageUpdaterRounds() {
        fs::create_directories(downloads);
        for (std::string const version : {"1.0.0", "2.0.0"}) {
            std::string const artifact = ArtifactBuilder(directory / ("artifact-" + version))
                                             .program("run", "exec sleep 1000")
                                             .file("blob", content_of(version))
                                             .build();
            server.answer("/api/packages/one/main/" + version + "/a/artifact",
                          {read_text(artifact)});
        }
    }
    void TearDown() override { EXPECT_TRUE(packages.stop("one").ok); }

    /// Does not compress, so that the transfers take a while.
    static std::string content_of(std::string const& version) {
        std::string content(1 << 20, '\0');
        std::uint32_t state = version == "1.0.0" ? 1 : 2;
        for (char& byte : content) {
            state = state * 1664525U + 1013904223U;
            byte = static_cast<char>(state >> 24);
        }
        return content;
    }

    void update_to_both(std::string const& first, std::string const& second) {
        updater.run_update_async({"one", first, "a", ""});
        updater.run_update_async({"one", second, "a", ""});
        ASSERT_TRUE(updater.wait_until_idle(60s));
        UpdateStatus const status = updater.status("one");
        EXPECT_EQ(status.phase, "done") << status.error;
    }

    void expect_whole(std::string const& first, std::string const& second) {
        Value const list = packages.list_installed().data;
        ASSERT_EQ(list.as_array().size(), 1U);
        Value const& entry = list.as_array().front();
        std::string const version = entry.at("version").as_string("");
        EXPECT_TRUE(version == first || version == second) << version;
        EXPECT_EQ(entry.at("status").as_string(""), "running");

        Value const saved = Value::parse(read_text(store + "/registry.json"));
        ASSERT_EQ(saved.as_array().size(), 1U);
        EXPECT_EQ(saved.as_array().front().at("version").as_string(""), version);
        std::string const path = store + "/store/one/" + version;
        EXPECT_EQ(saved.as_array().front().at("install_path").as_string(""), path);
        EXPECT_TRUE(read_text(path + "/blob") == content_of(version));
        for (fs::directory_entry const& left : fs::recursive_directory_iterator(directory.path())) {
            EXPECT_NE(left.path().extension(), ".staging");
            EXPECT_NE(left.path().extension(), ".tmp");
        }
    }

    static std::string error_of(PackageManagerReply const& reply) {
        return reply.ok ? "" : reply.error;
    }
    std::string file_of(Request const& request) const {
        return downloads + "/" + request.name + "-" + request.version + "-" + request.arch +
               ".tar.gz";
    }

    TemporaryDirectory directory;
    std::string const store = directory / "store";
    std::string const downloads = directory / "downloads";
    TestHttpServer server;
    RegistryClient registry{server.url()};
    PackageManagerService packages{store};
    PackageUpdater updater{
        {.download =
             [this](Request const& request) {
                 return registry
                     .fetch_artifact(request.name, "main", request.version, request.arch,
                                     file_of(request))
                     .value_or("");
             },
         .install =
             [this](Request const& request) {
                 return error_of(packages.install(
                     {request.name, request.version, request.arch, file_of(request), false}));
             },
         .start =
             [this](Request const& request) { return error_of(packages.start(request.name)); }}};
};

TEST_F(PackageUpdaterRounds, ToTwoVersionsEndsInOneOfThemWhole) {
    for (int round = 0; round < K_ROUNDS; ++round) {
        update_to_both("1.0.0", "2.0.0");
        expect_whole("1.0.0", "2.0.0");
    }
}

TEST_F(PackageUpdaterRounds, ToTheSameVersionEndsInThatWhole) {
    for (int round = 0; round < K_ROUNDS; ++round) {
        update_to_both("1.0.0", "1.0.0");
        expect_whole("1.0.0", "1.0.0");
    }
}

} // namespace
} // namespace mirelclient
