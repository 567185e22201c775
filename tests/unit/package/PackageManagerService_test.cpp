#include "package/PackageManagerService.hpp"

#include "tests/unit/package/PackageTest.hpp"

#include <ctime>
#include <sys/wait.h>

namespace tessaron {
namespace {

namespace fs = std::filesystem;
using test::expect_failure;
using test::expect_success;
using test::read_text;
using test::wait_until;
using test::write_text;

using PackageManagerServiceTest = test::PackageTest;

TEST_F(PackageManagerServiceTest, AFreshStoreIsMadeAndListsAsAnEmptyArray) {
    PackageManagerReply const reply = service().list_installed();
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(reply.data.dump(), "[]");
    EXPECT_TRUE(fs::is_directory(root() + "/store"));
    EXPECT_FALSE(fs::exists(registry_path()));
}

TEST_F(PackageManagerServiceTest, TheListingHasExactlyItsSixKeysInNameOrder) {
    ASSERT_TRUE(install("b", "2", sleeper()).ok);
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    ASSERT_TRUE(install("B", "3", sleeper()).ok);
    ASSERT_TRUE(service().set_launch_args("a", {"-x", ""}).ok);
    EXPECT_EQ(service().list_installed().data.dump(),
              R"([{"arch":"arch","launch_args":[],"name":"B","started_at":0,"status":"down",)"
              R"("version":"3"},)"
              R"({"arch":"arch","launch_args":["-x",""],"name":"a","started_at":0,)"
              R"("status":"down","version":"1"},)"
              R"({"arch":"arch","launch_args":[],"name":"b","started_at":0,"status":"down",)"
              R"("version":"2"}])");
}

TEST_F(PackageManagerServiceTest, TheRegistryHasExactlyItsSevenKeysAndNoLineEnd) {
    ASSERT_TRUE(install("a", "1", artifact().manifest(R"({"z":[1,{"y":null}]})").build()).ok);
    ASSERT_TRUE(service().set_launch_args("a", {"-x", "it's"}).ok);
    EXPECT_EQ(registry(), R"([{"administratively_stopped":false,"arch":"arch","install_path":")" +
                              path_of("a", "1") +
                              R"(","launch_args":["-x","it's"],"manifest":{"z":[1,{"y":null}]},)"
                              R"("name":"a","version":"1"}])");
    EXPECT_FALSE(fs::exists(registry_path() + ".tmp"));
}

TEST_F(PackageManagerServiceTest, TheLastUninstallWritesAnEmptyArray) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    expect_success(service().uninstall("a"));
    EXPECT_EQ(registry(), "[]");
}

TEST_F(PackageManagerServiceTest, StartedAtIsTheTimeOfTheStartAndZeroOnceItNoLongerRuns) {
    auto const before = static_cast<double>(std::time(nullptr));
    ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
    auto const after = static_cast<double>(std::time(nullptr));
    EXPECT_EQ(status_of("a"), "running");
    EXPECT_GE(listing_of("a").at("started_at").as_double(0), before);
    EXPECT_LE(listing_of("a").at("started_at").as_double(0), after);
    ASSERT_TRUE(service().stop("a").ok);
    EXPECT_EQ(status_of("a"), "stopped");
    EXPECT_EQ(listing_of("a").at("started_at").as_double(-1), 0);
}

TEST_F(PackageManagerServiceTest, AProcessThatDiedSinceTheLastPassStillListsAsRunning) {
    ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
    json::Value const before = listing_of("a");
    pid_t const pid = take_pid(path_of("a", "1") + "/pid");
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    wait_until(
        [&] {
            return read_text("/proc/" + std::to_string(pid) + "/stat").find(") Z ") !=
                   std::string::npos;
        },
        "the child is a zombie");
    EXPECT_EQ(listing_of("a").dump(), before.dump());
    EXPECT_EQ(status_of("a"), "running");
}

TEST_F(PackageManagerServiceTest, ManifestIsTheWholeDocument) {
    ASSERT_TRUE(
        install("a", "1", artifact().manifest(R"({"name":"else", "other":[true]})").build()).ok);
    PackageManagerReply const reply = service().manifest("a");
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(reply.data.dump(), R"({"name":"else","other":[true]})");
}

TEST_F(PackageManagerServiceTest, QueriesNameAPackageThatIsNotInstalled) {
    expect_failure(service().manifest("no\"ne"), "manifest: \"no\"ne\" is not installed");
    expect_failure(service().set_launch_args("none", {"x"}),
                   "set_launch_args: \"none\" is not installed");
    EXPECT_EQ(service().list_installed().data.dump(), "[]");
    EXPECT_FALSE(fs::exists(registry_path()));
}

TEST_F(PackageManagerServiceTest, AReopenedStoreKeepsArgumentsAndStopsAndRunsNothingYet) {
    ASSERT_TRUE(install("stopped", "1", sleeper(), true).ok);
    ASSERT_TRUE(install("running", "1", sleeper(), true).ok);
    expect_success(service().set_launch_args("stopped", {"a", "b c"}));
    ASSERT_TRUE(service().stop("stopped").ok);
    pid_t const left_running = take_pid(path_of("running", "1") + "/pid");

    open();
    EXPECT_EQ(status_of("stopped"), "stopped");
    EXPECT_EQ(listing_of("stopped").at("launch_args").dump(), R"(["a","b c"])");
    EXPECT_EQ(status_of("running"), "down");
    EXPECT_EQ(listing_of("running").at("started_at").as_double(-1), 0);
    EXPECT_EQ(service().manifest("running").data.at("executable").as_string(""), "run");

    // The first pass brings back what ran, as a further instance, and leaves the rest alone.
    RespawnCooldown cooldown;
    service().supervise_once(cooldown, RespawnCooldown::Clock::now());
    EXPECT_EQ(status_of("stopped"), "stopped");
    EXPECT_EQ(status_of("running"), "running");
    EXPECT_NE(take_pid(path_of("running", "1") + "/pid"), left_running);
    EXPECT_TRUE(is_alive(left_running));
    kill(left_running, SIGKILL);
    waitpid(left_running, nullptr, 0);
}

TEST_F(PackageManagerServiceTest, AMalformedRegistryIsAnEmptyStoreThatTheNextSaveReplaces) {
    std::string const deep(1 << 20, '[');
    for (std::string const& text :
         {std::string("{"), std::string("["), std::string("["), std::string("[{}"), deep,
          std::string("[]x"), std::string("\0", 1), std::string("{\"a\":1}"), std::string("null"),
          std::string("3"), std::string("\"[]\"")}) {
        close();
        write_text(registry_path(), text);
        open();
        EXPECT_EQ(service().list_installed().data.dump(), "[]") << text.substr(0, 20);
        EXPECT_EQ(registry(), text) << "loading must not write";
        ASSERT_TRUE(install("a", "1", artifact().build()).ok);
        EXPECT_EQ(json::Value::parse(registry()).as_array().size(), 1u);
    }
}

TEST_F(PackageManagerServiceTest, ARegistryThatCannotBeWrittenStaysWholeWhileMemoryGoesOn) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    std::string const before = registry();
    fs::create_directory(registry_path() + ".tmp");
    expect_success(service().set_launch_args("a", {"new"}));
    EXPECT_EQ(listing_of("a").at("launch_args").dump(), R"(["new"])");
    EXPECT_EQ(registry(), before);
    fs::remove(registry_path() + ".tmp");
    expect_success(service().set_launch_args("a", {"newer"}));
    EXPECT_NE(registry(), before);
}

TEST_F(PackageManagerServiceTest, ARegistryThatCannotBeReplacedStaysInItsPlace) {
    close();
    write_text(registry_path() + "/inside", "a directory cannot be replaced by a file");
    open();
    EXPECT_EQ(service().list_installed().data.dump(), "[]");
    expect_success(install("a", "1", artifact().build()));
    EXPECT_TRUE(fs::is_directory(registry_path()));
}

TEST_F(PackageManagerServiceTest, AStoreThatCannotBeMadeFailsOnlyTheInstalls) {
    write_text(scratch_ / "file", "");
    PackageManagerService elsewhere(scratch_ / "file" + "/root", std::chrono::hours(1));
    EXPECT_EQ(elsewhere.list_installed().data.dump(), "[]");
    expect_failure(elsewhere.install({"a", "1", "", sleeper(), true}),
                   "install: tar extraction failed");
}

TEST_F(PackageManagerServiceTest, DestructionEndsASleepingSupervisorAndLeavesChildrenRunning) {
    ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
    pid_t const pid = take_pid(path_of("a", "1") + "/pid");
    close(); // its supervisor sleeps for an hour
    EXPECT_TRUE(is_alive(pid));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(PackageManagerServiceTest, AStopMayBeRequestedRepeatedly) {
    service().request_stop();
    service().request_stop();
    EXPECT_TRUE(service().list_installed().ok);
}

TEST_F(PackageManagerServiceTest, TheSupervisorThreadHasItsName) {
    wait_until(
        [] {
            for (auto const& task : fs::directory_iterator("/proc/self/task")) {
                if (read_text(task.path() / "comm") == "pkg-supervisor\n") {
                    return true;
                }
            }
            return false;
        },
        "a thread is called pkg-supervisor");
}

} // namespace
} // namespace tessaron
