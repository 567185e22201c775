#include "tests/unit/MirelClientApp/updates/SelfUpdaterTest.hpp"

namespace mirelclient {
namespace {

namespace fs = std::filesystem;
using tessaron::test::read_text;
using tessaron::test::write_text;

class SelfUpdaterFailures : public SelfUpdaterTest {
protected:
    void expect_refused(std::string const& artifact_path, std::string const& error) {
        publish("1.0.0", artifact_path);
        EXPECT_EQ(updater.update_to("1.0.0"), error);
        expect_nothing_has_changed();
    }
    std::string with_manifest(std::string const& text) {
        return artifact().program("run", "exit 0").manifest(text).build();
    }
};

TEST_F(SelfUpdaterFailures, AProgramWhosePathCannotBeToldIsNotUpdated) {
    publish("1.0.0", artifact().program("run", "exit 0").build());
    EXPECT_EQ(updater_of("").update_to("1.0.0"),
              "couldn't resolve this process's own executable path");
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(restarts.empty());
}

TEST_F(SelfUpdaterFailures, AnUnknownVersionGivesTheDownloadsErrorAsItStands) {
    EXPECT_EQ(updater.update_to("9.9.9"),
              "download failed: " + server.url() + artifact_path("9.9.9"));
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterFailures, WhatIsNoArchiveIsRefused) {
    write_text(directory / "text", "no archive");
    expect_refused(directory / "text", "tar extraction failed");
}

TEST_F(SelfUpdaterFailures, ATruncatedArchiveIsRefused) {
    std::string const whole = read_text(artifact().program("run", "exit 0").build());
    write_text(directory / "half", whole.substr(0, whole.size() / 2));
    expect_refused(directory / "half", "tar extraction failed");
}

TEST_F(SelfUpdaterFailures, AnArchiveWithoutAManifestIsRefusedAsOneWithAnEmptyManifest) {
    std::string const error = "malformed manifest: tiny_json: unexpected end of input";
    expect_refused(artifact().program("run", "exit 0").without_manifest().build(), error);
    expect_refused(artifact()
                       .program("run", "exit 0")
                       .without_manifest()
                       .before_packing(": >manifest.json")
                       .build(),
                   error);
}

TEST_F(SelfUpdaterFailures, AManifestThatIsNoFileReadsAsEmpty) {
    for (std::string const command : {"mkdir manifest.json", "mkfifo manifest.json"}) {
        expect_refused(
            artifact().program("run", "exit 0").without_manifest().before_packing(command).build(),
            "malformed manifest: tiny_json: unexpected end of input");
    }
}

TEST_F(SelfUpdaterFailures, AMalformedManifestIsRefusedWithTheParsersText) {
    expect_refused(with_manifest("{\"executable\":\"run\"} x"),
                   "malformed manifest: tiny_json: trailing garbage after top-level value at "
                   "offset 21");
    expect_refused(with_manifest("no json"), "malformed manifest: stod");
}

TEST_F(SelfUpdaterFailures, AnArchiveWithoutAPayloadIsRefused) {
    std::string const error = "archive has no payload.tar";
    expect_refused(artifact().program("run", "exit 0").without_payload().build(), error);
    for (std::string const command : {"mkdir payload.tar", "mkfifo payload.tar"}) {
        expect_refused(
            artifact().program("run", "exit 0").without_payload().before_packing(command).build(),
            error);
    }
}

TEST_F(SelfUpdaterFailures, AnotherDigestThanTheManifestsIsRefused) {
    std::string const error = "checksum mismatch - refusing to install a corrupt/tampered update";
    expect_refused(
        with_manifest(R"({"executable":"run","sha256":")" + std::string(64, '0') + "\"}"), error);
    expect_refused(with_manifest(R"({"executable":"run","sha256":"@SHA256@ "})"), error);
    expect_refused(
        artifact().program("run", "exit 0").before_packing("printf x >>payload.tar").build(),
        error);
}

TEST_F(SelfUpdaterFailures, TheDigestIsLookedAtBeforeTheExecutable) {
    expect_refused(with_manifest(R"({"sha256":"0"})"),
                   "checksum mismatch - refusing to install a corrupt/tampered update");
}

TEST_F(SelfUpdaterFailures, AManifestWithoutAnExecutableIsRefused) {
    for (std::string const manifest : {"{}", "5", "[]", R"({"executable":""})",
                                       R"({"executable":7})", R"({"sha256":"@SHA256@"})"}) {
        expect_refused(with_manifest(manifest), "manifest has no \"executable\" field");
    }
}

TEST_F(SelfUpdaterFailures, APayloadThatIsNoArchiveIsRefused) {
    expect_refused(artifact().program("run", "exit 0").broken_payload("no archive").build(),
                   "payload.tar extraction failed");
}

TEST_F(SelfUpdaterFailures, AnExecutableThatIsNotInTheArtifactIsRefused) {
    expect_refused(with_manifest(R"({"executable":"bin/other"})"),
                   "manifest's \"executable\" (bin/other) not found in the artifact");
}

TEST_F(SelfUpdaterFailures, AnExecutableThatIsADirectoryIsRefused) {
    expect_refused(artifact().file("bin/run", "").manifest(R"({"executable":"bin"})").build(),
                   "manifest's \"executable\" (bin) not found in the artifact");
}

TEST_F(SelfUpdaterFailures, AnExecutableThatIsADanglingLinkIsRefused) {
    auto builder = artifact();
    fs::create_symlink("nowhere", directory / "link");
    builder.manifest(R"({"executable":"link"})")
        .before_packing("tar -cf payload.tar -C '" + directory.path() + "' link");
    expect_refused(builder.build(), "manifest's \"executable\" (link) not found in the artifact");
}

TEST_F(SelfUpdaterFailures, AProgramWhoseDirectoryIsGoneCannotBeStagedBeside) {
    publish("1.0.0", artifact().program("run", "exit 0").build());
    std::string const lost = directory / "gone/program";
    EXPECT_EQ(updater_of(lost).update_to("1.0.0"), "couldn't stage the new binary next to " + lost);
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterFailures, AFailedRenameTellsItsReasonAndRemovesTheStagedFile) {
    publish("1.0.0", artifact().program("run", "exit 0").build());
    std::string const folder = directory / "folder";
    write_text(folder + "/inside", "kept");
    EXPECT_EQ(updater_of(folder).update_to("1.0.0"), "rename() failed: Is a directory");
    EXPECT_EQ(read_text(folder + "/inside"), "kept");
    EXPECT_FALSE(fs::exists(folder + ".new"));
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterFailures, AFailedUpdateDoesNotStandInTheWayOfTheNext) {
    expect_refused(with_manifest("{}"), "manifest has no \"executable\" field");
    publish("1.0.0", artifact().file("run", "new").build());
    EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(read_text(program), "new");
}

} // namespace
} // namespace mirelclient
