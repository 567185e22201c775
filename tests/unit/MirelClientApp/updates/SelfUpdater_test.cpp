#include "tests/unit/MirelClientApp/updates/SelfUpdaterTest.hpp"

#include <csignal>
#include <gmock/gmock.h>
#include <mutex>
#include <sys/wait.h>
#include <thread>

namespace mirelclient {
namespace {

namespace fs = std::filesystem;
using tessaron::test::must_run;
using tessaron::test::read_text;
using tessaron::test::shell_word;
using tessaron::test::write_text;
using testing::ElementsAre;

constexpr fs::perms K_MODE_0755 = fs::perms::owner_all | fs::perms::group_read |
                                  fs::perms::group_exec | fs::perms::others_read |
                                  fs::perms::others_exec;

TEST_F(SelfUpdaterTest, ItsAccessorsGiveWhatItWasMadeWith) {
    EXPECT_EQ(updater.arch(), "cpu-os");
    EXPECT_EQ(updater.current_version(), "0.0.0");
}

TEST_F(SelfUpdaterTest, AnUpdateReplacesTheProgramAndAsksOnceForARestart) {
    publish("1.0.0", artifact()
                         .file("bin/run", "the new program")
                         .manifest(R"({"executable":"bin/run","sha256":"@SHA256@"})")
                         .build());
    EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(read_text(program), "the new program");
    EXPECT_EQ(fs::status(program).permissions(), K_MODE_0755);
    EXPECT_FALSE(fs::exists(program + ".new"));
    EXPECT_THAT(restarts, ElementsAre("self-update 0.0.0 -> 1.0.0"));
    EXPECT_THAT(server.requests(), ElementsAre(artifact_path("1.0.0")));
}

TEST_F(SelfUpdaterTest, WithoutADigestNoneIsChecked) {
    for (std::string const manifest :
         {R"({"executable":"run"})", R"({"executable":"run","sha256":""})"}) {
        write_text(program, K_OLD);
        publish("1.0.0", artifact().file("run", "new").manifest(manifest).build());
        EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
        EXPECT_EQ(read_text(program), "new");
    }
}

TEST_F(SelfUpdaterTest, AnyVersionThatIsNamedIsTakenOlderOnesToo) {
    publish("0.0.0-dev.1", artifact().file("run", "older").build());
    EXPECT_EQ(updater.update_to("0.0.0-dev.1"), std::nullopt);
    EXPECT_EQ(read_text(program), "older");
    EXPECT_THAT(restarts, ElementsAre("self-update 0.0.0 -> 0.0.0-dev.1"));
}

TEST_F(SelfUpdaterTest, TheNewFileIsAnotherOneSoTheRunningProgramKeepsItsOwn) {
    fs::create_hard_link(program, directory / "held");
    publish("1.0.0", artifact().file("run", "new").build());
    EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(read_text(directory / "held"), K_OLD);
}

TEST_F(SelfUpdaterTest, AProgramThatRunsIsReplacedAndGoesOn) {
    std::string const runs = directory / "sleeper";
    fs::copy_file(fs::canonical("/bin/sleep"), runs);
    pid_t const child = fork();
    if (child == 0) {
        execl(runs.c_str(), "sleeper", "1000", nullptr);
        _exit(127);
    }
    publish("1.0.0", artifact().program("run", "echo new").build());
    EXPECT_EQ(updater_of(runs).update_to("1.0.0"), std::nullopt);
    must_run(shell_word(runs) + " | grep -qx new");
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(SelfUpdaterTest, NothingButTheExecutableIsTakenAndNoScriptIsRun) {
    std::string const told = directory / "told";
    std::string const tell = "echo $0 >>" + shell_word(told) + "\n";
    publish("1.0.0", artifact()
                         .file("run", "new")
                         .file("other", "")
                         .file("install.sh", tell)
                         .file("uninstall.sh", tell)
                         .build());
    EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1);
    EXPECT_EQ(read_text(program), "new");
}

TEST_F(SelfUpdaterTest, NamesAreNoShellWords) {
    std::string const canary = directory / "canary";
    std::string const hostile = "it's $(touch " + canary + ")\n\";`&|*";
    std::string const odd_program = directory / "a ' \" $(x)";
    std::string const executable = "dir 'x'/it's $(run) x";
    write_text(odd_program, K_OLD);
    publish("1.0.0", artifact()
                         .file(executable, "new")
                         .manifest("{\"executable\":\"" + executable + "\"}")
                         .build());
    EXPECT_EQ(updater_of(odd_program).update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(read_text(odd_program), "new");
    EXPECT_TRUE(updater.update_to(hostile).has_value());
    EXPECT_FALSE(fs::exists(canary));
}

TEST_F(SelfUpdaterTest, WhatAKilledUpdateLeftBehindDoesNotShineThrough) {
    write_text(work_dir + "/extract/manifest.json", R"({"executable":"stale"})");
    write_text(work_dir + "/extract/stale", "stale");
    write_text(program + ".new", "longer than the new program, and half of another one");
    publish("1.0.0", artifact().file("run", "new").without_manifest().build());
    EXPECT_EQ(updater.update_to("1.0.0"), "malformed manifest: tiny_json: unexpected end of input");
    publish("1.0.0", artifact().file("run", "new").build());
    EXPECT_EQ(updater.update_to("1.0.0"), std::nullopt);
    EXPECT_EQ(read_text(program), "new");
    EXPECT_FALSE(fs::exists(program + ".new"));
}

TEST_F(SelfUpdaterTest, UpdatesAtTheSameTimeFollowOneAnother) {
    constexpr int K_UPDATES = 6;
    std::vector<std::thread> threads;
    for (int i = 0; i < K_UPDATES; ++i) {
        std::string const version = "1.0." + std::to_string(i);
        publish(version, artifact().file("run", "build " + version).build());
        threads.emplace_back(
            [this, version] { EXPECT_EQ(updater.update_to(version), std::nullopt); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(restarts.size(), static_cast<std::size_t>(K_UPDATES));
    EXPECT_EQ("self-update 0.0.0 -> " + read_text(program).substr(6), restarts.back());
    EXPECT_FALSE(fs::exists(program + ".new"));
}

} // namespace
} // namespace mirelclient
