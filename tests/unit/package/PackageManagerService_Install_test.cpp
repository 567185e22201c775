#include "tests/unit/package/PackageTest.hpp"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

namespace fs = std::filesystem;
using test::ArtifactBuilder;
using test::expect_failure;
using test::expect_success;
using test::must_run;
using test::read_text;
using test::shell_word;
using test::wait_until;
using test::write_text;

using Install = test::PackageTest;

constexpr char const* K_CHECKSUM_MISMATCH =
    "install: checksum mismatch - refusing to install a corrupt/tampered artifact";
constexpr char const* K_SCRIPT_FAILED =
    "install: install.sh exited non-zero - rolled back, nothing installed";

TEST_F(Install, PutsThePayloadBesideItsManifestAndTheArchiveItCameIn) {
    std::string const artifact_path =
        artifact().program("bin/run", "true").file("data/x", "contents").build();
    expect_success(install("a", "1", artifact_path));
    EXPECT_EQ(read_text(path_of("a", "1") + "/data/x"), "contents");
    EXPECT_TRUE(fs::exists(path_of("a", "1") + "/bin/run"));
    EXPECT_TRUE(fs::exists(path_of("a", "1") + "/manifest.json"));
    EXPECT_TRUE(fs::exists(path_of("a", "1") + "/payload.tar"));
    EXPECT_FALSE(fs::exists(staging_of("a", "1")));
    EXPECT_TRUE(fs::exists(artifact_path));
    EXPECT_EQ(version_of("a"), "1");
    EXPECT_EQ(listing_of("a").at("arch").as_string(""), "arch");
}

TEST_F(Install, StartsThePackageWhenAsked) {
    expect_success(install("a", "1", sleeper(), true));
    EXPECT_EQ(status_of("a"), "running");
    EXPECT_TRUE(is_alive(take_pid(path_of("a", "1") + "/pid")));
}

TEST_F(Install, WithoutAStartThePackageIsDownAndTheSupervisorStartsIt) {
    expect_success(install("a", "1", sleeper(), false));
    EXPECT_EQ(status_of("a"), "down");
    RespawnCooldown cooldown;
    service().supervise_once(cooldown, RespawnCooldown::Clock::now());
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Install, APackageThatCannotStartIsInstalledAllTheSame) {
    expect_success(install("a", "1", artifact().manifest("{}").build(), true));
    EXPECT_EQ(status_of("a"), "down");
}

TEST_F(Install, NeedsANameAndAVersionAndTouchesNothingWithoutThem) {
    std::string const artifact_path = sleeper();
    write_text(root() + "/store/a/.staging/x", "stays");
    expect_failure(install("", "1", artifact_path), "install: name/version required");
    expect_failure(install("a", "", artifact_path), "install: name/version required");
    expect_failure(install("", "", artifact_path), "install: name/version required");
    EXPECT_TRUE(fs::exists(root() + "/store/a/.staging/x"));
    EXPECT_FALSE(fs::exists(registry_path()));
    expect_success(service().install({"a", "1", "", artifact_path, false}));
}

// What every failure before the move must leave alone: an installed and running package.
class FailingInstall : public test::PackageTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
        ASSERT_TRUE(service().set_launch_args("a", {"kept"}).ok);
        pid_ = take_pid(path_of("a", "1") + "/pid");
        registry_ = registry();
        listing_ = listing_of("a").dump();
    }

    void fails(std::string const& version, std::string const& artifact_path,
               std::string const& error) {
        expect_failure(install("a", version, artifact_path, true), error);
        EXPECT_FALSE(fs::exists(staging_of("a", version))) << error;
        EXPECT_TRUE(fs::exists(path_of("a", "1") + "/run")) << error;
        EXPECT_FALSE(fs::exists(path_of("a", "2"))) << error;
        EXPECT_EQ(registry(), registry_) << error;
        EXPECT_EQ(listing_of("a").dump(), listing_) << error;
        EXPECT_TRUE(is_alive(pid_)) << error;
    }
    /// The same version over itself, and another one.
    void fails(ArtifactBuilder const& builder, std::string const& error) {
        std::string const artifact_path = builder.build();
        fails("1", artifact_path, error);
        fails("2", artifact_path, error);
    }

private:
    pid_t pid_ = -1;
    std::string registry_;
    std::string listing_;
};

TEST_F(FailingInstall, AnArtifactThatIsNotThereIsRefused) {
    fails("1", scratch_ / "none", "install: tar extraction failed");
    fails("2", "", "install: tar extraction failed");
}

TEST_F(FailingInstall, AnArtifactThatIsNoArchiveIsRefused) {
    write_text(scratch_ / "text", "this is no archive");
    fails("2", scratch_ / "text", "install: tar extraction failed");
}

TEST_F(FailingInstall, AnArchiveThatIsNotCompressedIsRefused) {
    must_run("tar -cf " + shell_word(scratch_ / "plain.tar") + " -C / etc/hostname 2>/dev/null");
    fails("2", scratch_ / "plain.tar", "install: tar extraction failed");
}

TEST_F(FailingInstall, AnArchiveThatIsCutOffIsRefused) {
    std::string const artifact_path = sleeper();
    fs::resize_file(artifact_path, fs::file_size(artifact_path) / 2);
    fails("2", artifact_path, "install: tar extraction failed");
}

TEST_F(FailingInstall, AnArchiveWithoutAManifestIsRefused) {
    fails(artifact().without_manifest(), "install: archive has no manifest.json");
}

TEST_F(FailingInstall, AnArchiveWhoseManifestIsANamedPipeIsRefused) {
    fails(artifact().without_manifest().before_packing("mkfifo manifest.json"),
          "install: archive has no manifest.json");
}

TEST_F(FailingInstall, MalformedManifestsGiveTheParsersText) {
    std::vector<std::pair<std::string, std::string>> const cases = {
        {" ", "tiny_json: unexpected end of input"},
        {"{\"executable\":\"run\"", "tiny_json: expected '}' at offset 19"},
        {"{}x", "tiny_json: trailing garbage after top-level value at offset 2"},
        {"{\"a\":1,}", "tiny_json: expected '\"' at offset 7"},
        {std::string(1 << 20, '['), "tiny_json: unexpected end of input"},
    };
    for (auto const& [manifest, error] : cases) {
        fails("2", artifact().manifest(manifest).build(), "install: malformed manifest: " + error);
    }
}

TEST_F(FailingInstall, AManifestThatIsPlainTextGivesTheConversionsText) {
    PackageManagerReply const reply = install("a", "2", artifact().manifest("hello").build());
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error.rfind("install: malformed manifest: ", 0), 0u);
    EXPECT_GT(reply.error.size(), std::strlen("install: malformed manifest: "));
    EXPECT_FALSE(fs::exists(staging_of("a", "2")));
}

TEST_F(FailingInstall, AnArchiveWithoutAPayloadIsRefused) {
    fails(artifact().without_payload(), "install: archive has no payload.tar");
}

TEST_F(FailingInstall, AnotherDigestIsRefused) {
    fails(artifact().manifest("{\"sha256\":\"" + std::string(64, '0') + "\"}"),
          K_CHECKSUM_MISMATCH);
    fails(artifact().manifest(R"({"sha256":" @SHA256@"})"), K_CHECKSUM_MISMATCH);
    fails(artifact().manifest(R"({"sha256":"short"})"), K_CHECKSUM_MISMATCH);
}

TEST_F(FailingInstall, ADigestInUppercaseIsAMismatch) {
    ArtifactBuilder builder = artifact();
    std::string const right = builder.manifest(R"({"sha256":"@SHA256@"})").build();
    must_run("tar -xzf " + shell_word(right) + " -C " + shell_word(scratch_.path()) +
             " ./manifest.json");
    std::string manifest = read_text(scratch_ / "manifest.json");
    std::transform(manifest.begin() + 11, manifest.end(), manifest.begin() + 11,
                   [](char c) { return static_cast<char>(std::toupper(c)); });
    fails(builder.manifest(manifest), K_CHECKSUM_MISMATCH);
}

TEST_F(FailingInstall, WithoutAToolForDigestsEveryDigestIsAMismatch) {
    fs::create_directory(scratch_ / "tools");
    for (std::string const tool : {"tar", "gzip", "rm", "mkdir", "sh", "cut"}) {
        must_run("ln -s \"$(command -v " + tool + ")\" " + shell_word(scratch_ / "tools"));
    }
    std::string const artifact_path = sleeper();
    std::string const path = std::getenv("PATH");
    setenv("PATH", (scratch_ / "tools").c_str(), 1);
    fails("2", artifact_path, K_CHECKSUM_MISMATCH);
    setenv("PATH", path.c_str(), 1);
}

TEST_F(FailingInstall, APayloadThatIsNoArchiveIsRefused) {
    fails(artifact().broken_payload("this is no archive"),
          "install: payload.tar extraction failed");
}

TEST_F(FailingInstall, AScriptThatFailsRollsBack) {
    fails(artifact().file("install.sh", "exit 3"), K_SCRIPT_FAILED);
    fails(artifact().file("install.sh", "kill -9 $$"), K_SCRIPT_FAILED);
    fails(artifact().file("install.sh", "if then ((("), K_SCRIPT_FAILED);
}

TEST_F(FailingInstall, WhatAFailingScriptDidElsewhereStays) {
    std::string const elsewhere = scratch_ / "elsewhere";
    fails("2", artifact().file("install.sh", "echo x > " + elsewhere + "; exit 1").build(),
          K_SCRIPT_FAILED);
    EXPECT_EQ(read_text(elsewhere), "x\n");
}

TEST_F(FailingInstall, AHangingScriptIsEndedByAStopRequestAndRolledBack) {
    std::string const begun = scratch_ / "begun";
    std::string const artifact_path =
        artifact().file("install.sh", "echo x > " + begun + "; sleep 1000; exit 0").build();
    std::thread stopper([&] {
        wait_until([&] { return fs::exists(begun); }, "install.sh runs");
        service().request_stop();
    });
    fails("2", artifact_path, K_SCRIPT_FAILED);
    stopper.join();
}

TEST_F(FailingInstall, AHangingUnpackIsEndedByAStopRequestAndRolledBack) {
    std::string const pipe = scratch_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0); // tar waits for a writer that never comes
    std::thread stopper([&] {
        wait_until([&] { return fs::exists(staging_of("a", "2")); }, "the install has begun");
        service().request_stop();
    });
    fails("2", pipe, "install: tar extraction failed");
    stopper.join();
}

TEST_F(FailingInstall, AfterAStopRequestNoInstallBegins) {
    service().request_stop();
    fails(artifact(), "install: tar extraction failed");
}

TEST_F(FailingInstall, AMoveThatFailsLosesOnlyTheFilesOfTheSameVersion) {
    std::string const before = listing_of("a").dump();
    std::string const gone = artifact().file("install.sh", "rm -rf \"$PWD\"").build();
    std::string const error =
        std::string("install: couldn't move staged files into place: ") + std::strerror(ENOENT);
    fails("2", gone, error);
    expect_failure(install("a", "1", gone), error);
    EXPECT_FALSE(fs::exists(path_of("a", "1")));
    EXPECT_FALSE(fs::exists(staging_of("a", "1")));
    EXPECT_EQ(listing_of("a").dump(), before);
}

TEST_F(Install, AMoveThatFailsRemovesTheStagingDirectory) {
    // A directory cannot be moved over "."; nor is that removed.
    PackageManagerReply const reply = install("a", ".", sleeper());
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error.rfind("install: couldn't move staged files into place: ", 0), 0u);
    EXPECT_TRUE(fs::is_empty(root() + "/store/a"));
}

TEST_F(Install, AManifestWithoutADigestInstallsUnchecked) {
    for (char const* manifest :
         {"{}", R"({"sha256":""})", R"({"sha256":7})", R"({"sha256":null})"}) {
        expect_success(install("a", "1", artifact().manifest(manifest).build()));
    }
}

TEST_F(Install, AManifestThatIsNoObjectInstallsAndThenCannotStart) {
    for (char const* manifest : {"[]", "3", "null", "\"x\"", "[{\"executable\":\"run\"}]"}) {
        expect_success(install("a", "1", artifact().manifest(manifest).build()));
        expect_failure(service().start("a"), "start: manifest has no \"executable\" field");
        EXPECT_EQ(service().manifest("a").data.dump(), manifest);
    }
}

TEST_F(Install, TheManifestsOwnIdentityIsNotCompared) {
    expect_success(
        install("a", "1", artifact().manifest(R"({"name":"b","version":"9","arch":"z"})").build()));
    EXPECT_EQ(version_of("a"), "1");
    EXPECT_EQ(version_of("b"), "");
}

TEST_F(Install, TheScriptRunsInStagingAndKnowsTheFinalPlace) {
    std::string const report = scratch_ / "report";
    expect_success(install(
        "a", "1",
        artifact()
            .file("install.sh", "{ pwd; env | grep ^MIREL_ | sort; test -e \"$MIREL_INSTALL_PATH\""
                                " || echo absent; cat run-data; } > " +
                                    report + "; echo made > made-by-script")
            .file("run-data", "payload is here\n")
            .build()));
    EXPECT_EQ(read_text(report), staging_of("a", "1") +
                                     "\n"
                                     "MIREL_INSTALL_PATH=" +
                                     path_of("a", "1") +
                                     "\n"
                                     "MIREL_PACKAGE_ACTION=install\n"
                                     "MIREL_PACKAGE_ARCH=arch\n"
                                     "MIREL_PACKAGE_NAME=a\n"
                                     "MIREL_PACKAGE_VERSION=1\n"
                                     "absent\n"
                                     "payload is here\n");
    EXPECT_EQ(read_text(path_of("a", "1") + "/made-by-script"), "made\n");
}

TEST_F(Install, WhatAnEarlierInstallLeftInStagingIsRemoved) {
    write_text(staging_of("a", "1") + "/stale", "x");
    expect_success(install("a", "1", sleeper()));
    EXPECT_FALSE(fs::exists(path_of("a", "1") + "/stale"));
}

TEST_F(Install, ReinstallingTheRunningVersionReplacesFilesThenStopsThenStarts) {
    std::string const order = scratch_ / "order";
    std::string const program =
        "trap 'cat " + path_of("a", "1") + "/tag >> " + order +
        "; kill $!; exit 0' TERM; echo $$ > pid.new; mv pid.new pid; sleep 1000 & wait $!";
    expect_success(
        install("a", "1", artifact().program("run", program).file("tag", "old ").build(), true));
    pid_t const old_pid = take_pid(path_of("a", "1") + "/pid");
    expect_success(service().set_launch_args("a", {"x"}));
    write_text(path_of("a", "1") + "/only-in-old", "");

    expect_success(
        install("a", "1", artifact().program("run", program).file("tag", "new ").build(), true));
    EXPECT_EQ(read_text(order), "new ") << "the old process is stopped after the move";
    EXPECT_FALSE(is_alive(old_pid));
    EXPECT_NE(take_pid(path_of("a", "1") + "/pid"), old_pid);
    EXPECT_FALSE(fs::exists(path_of("a", "1") + "/only-in-old"));
    EXPECT_EQ(listing_of("a").at("launch_args").dump(), "[]");
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(Install, ClearsAnOperatorsStop) {
    expect_success(install("a", "1", sleeper()));
    expect_success(service().stop("a"));
    expect_success(install("a", "1", sleeper(), false));
    EXPECT_EQ(status_of("a"), "down");
}

TEST_F(Install, AnotherVersionStopsTheOldOneAndLeavesItsDirectory) {
    expect_success(install("a", "1", sleeper(), true));
    pid_t const old_pid = take_pid(path_of("a", "1") + "/pid");
    expect_success(install("a", "2", sleeper(), false));
    EXPECT_FALSE(is_alive(old_pid));
    EXPECT_EQ(version_of("a"), "2");
    EXPECT_TRUE(fs::exists(path_of("a", "1") + "/run"));

    expect_success(service().uninstall("a"));
    EXPECT_TRUE(fs::exists(path_of("a", "1") + "/run"));
    EXPECT_FALSE(fs::exists(path_of("a", "2")));
}

TEST_F(Install, ANameWithASlashMakesNestedDirectories) {
    expect_success(install("group/a", "1", sleeper(), true));
    EXPECT_TRUE(fs::exists(root() + "/store/group/a/1/run"));
    EXPECT_EQ(status_of("group/a"), "running");
    expect_success(service().uninstall("group/a"));
    EXPECT_TRUE(fs::is_empty(root() + "/store/group/a"));
}

} // namespace
} // namespace tessaron
