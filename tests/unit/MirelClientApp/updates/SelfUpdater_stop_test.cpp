#include "tests/support/wait_until.hpp"
#include "tests/unit/MirelClientApp/updates/SelfUpdaterTest.hpp"

#include <cstdlib>
#include <thread>

namespace mirelclient {
namespace {

namespace fs = std::filesystem;
using tessaron::test::shell_word;
using tessaron::test::wait_until;
using tessaron::test::write_text;

/// Updates one of whose tools never ends by itself.
class SelfUpdaterStop : public SelfUpdaterTest {
protected:
    SelfUpdaterStop() { publish("1.0.0", artifact().program("run", "exit 0").build()); }
    ~SelfUpdaterStop() override { setenv("PATH", path_.c_str(), 1); }

    /// From now on `tool` runs `first`, tells that it is at work, and hangs.
    void hang(std::string const& tool, std::string const& first = ":") {
        std::string const script = directory / ("tools/" + tool);
        write_text(script, "#!/bin/sh\nPATH=" + shell_word(path_) + "\n" + first + "\n: >" +
                               shell_word(at_work_) + "\nexec sleep 1000\n");
        fs::permissions(script, fs::perms::owner_all);
        setenv("PATH", (directory / "tools:" + path_).c_str(), 1);
    }

    /// Begins an update, stops it when the tool hangs, and gives its result.
    ErrorText stop_at_work() {
        ErrorText error;
        std::thread update([&] { error = updater.update_to("1.0.0"); });
        wait_until([this] { return fs::exists(at_work_); }, "the tool is at work");
        updater.request_stop();
        update.join();
        return error;
    }

private:
    std::string const path_ = getenv("PATH");
    std::string const at_work_ = directory / "at-work";
};

TEST_F(SelfUpdaterStop, AStopRequestEndsTheUnpackingOfTheArtifact) {
    hang("tar");
    EXPECT_EQ(stop_at_work(), "tar extraction failed");
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterStop, AStopRequestEndsTheUnpackingOfThePayload) {
    hang("tar", R"(case "$1" in -xzf) exec tar "$@";; esac)");
    EXPECT_EQ(stop_at_work(), "payload.tar extraction failed");
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterStop, AStopRequestEndsTheDigest) {
    hang("shasum");
    EXPECT_EQ(stop_at_work(), "checksum mismatch - refusing to install a corrupt/tampered update");
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterStop, AStopRequestEndsTheCopyAndLeavesNoHalfOfIt) {
    hang("cp", R"(head -c 5 "$1" >"$2")");
    EXPECT_EQ(stop_at_work(), "couldn't stage the new binary next to " + program);
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterStop, AStopRequestOfTheRegistryClientEndsTheDownload) {
    server.answer(artifact_path("1.0.0"), {"begun", 1000, true});
    ErrorText error;
    std::thread update([&] { error = updater.update_to("1.0.0"); });
    wait_until([this] { return !server.requests().empty(); }, "the server has the request");
    registry.request_stop();
    updater.request_stop();
    update.join();
    EXPECT_EQ(error, "download failed: " + server.url() + artifact_path("1.0.0"));
    expect_nothing_has_changed();
}

TEST_F(SelfUpdaterStop, AfterAStopRequestNothingIsUpdated) {
    updater.request_stop();
    EXPECT_TRUE(updater.update_to("1.0.0").has_value());
    expect_nothing_has_changed();
}

} // namespace
} // namespace mirelclient
