#include "tests/unit/package/PackageTest.hpp"

#include <thread>

namespace tessaron {
namespace {

namespace fs = std::filesystem;
using test::expect_failure;
using test::expect_success;
using test::read_text;
using test::wait_until;

using Uninstall = test::PackageTest;

TEST_F(Uninstall, NamesAPackageThatIsNotInstalled) {
    expect_failure(service().uninstall("none"), "uninstall: \"none\" is not installed");
    EXPECT_FALSE(fs::exists(registry_path()));
}

TEST_F(Uninstall, StopsTheProcessAndRemovesFilesAndEntry) {
    expect_success(install("a", "1", sleeper(), true));
    pid_t const pid = take_pid(path_of("a", "1") + "/pid");
    expect_success(service().uninstall("a"));
    EXPECT_FALSE(is_alive(pid));
    EXPECT_TRUE(fs::is_empty(root() + "/store/a")) << "the parent directory stays";
    EXPECT_EQ(service().list_installed().data.dump(), "[]");
    EXPECT_EQ(registry(), "[]");
}

TEST_F(Uninstall, TheScriptRunsInTheInstallPathBeforeTheFilesGo) {
    std::string const report = scratch_ / "report";
    expect_success(install(
        "a", "1",
        artifact()
            .file("uninstall.sh", "{ pwd; env | grep ^MIREL_ | sort; cat data; } > " + report)
            .file("data", "still here\n")
            .build()));
    expect_success(service().uninstall("a"));
    EXPECT_EQ(read_text(report), path_of("a", "1") +
                                     "\n"
                                     "MIREL_INSTALL_PATH=" +
                                     path_of("a", "1") +
                                     "\n"
                                     "MIREL_PACKAGE_ACTION=uninstall\n"
                                     "MIREL_PACKAGE_ARCH=arch\n"
                                     "MIREL_PACKAGE_NAME=a\n"
                                     "MIREL_PACKAGE_VERSION=1\n"
                                     "still here\n");
}

TEST_F(Uninstall, AFailingScriptDoesNotStopTheRemoval) {
    expect_success(install("a", "1", artifact().file("uninstall.sh", "exit 1").build()));
    expect_success(service().uninstall("a"));
    EXPECT_FALSE(fs::exists(path_of("a", "1")));
    EXPECT_EQ(registry(), "[]");
}

TEST_F(Uninstall, AHangingScriptIsEndedByAStopRequestAndTheRemovalCompleted) {
    std::string const begun = scratch_ / "begun";
    expect_success(install(
        "a", "1", artifact().file("uninstall.sh", "echo x > " + begun + "; sleep 1000").build()));
    std::thread stopper([&] {
        wait_until([&] { return fs::exists(begun); }, "uninstall.sh runs");
        service().request_stop();
    });
    expect_success(service().uninstall("a"));
    stopper.join();
    EXPECT_FALSE(fs::exists(path_of("a", "1")));
}

} // namespace
} // namespace tessaron
