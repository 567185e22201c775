#include "app/AppShell.hpp"

#include "app/JsonConfigCodec.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/wait_until.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <thread>

namespace tessaron {
namespace {

using config::FieldSpec;

constexpr FieldSpec<char const*> K_APP_NAME{"app_name", "", "shell-test"};
constexpr FieldSpec<char const*> K_APP_DESCRIPTION{"app_description", "", "A test"};
constexpr FieldSpec<char const*> K_APP_DIR{"app_dir", "", "/nonexistent"};
constexpr FieldSpec<char const*> K_LOG_DIR{"log_dir", "", ""};
constexpr FieldSpec<long long> K_LOG_MIN_LEVEL{"log_min_level", "", 1};

class WaitingApp : public AppShellBase {
public:
    explicit WaitingApp(AppContext& context, int code = 0) : AppShellBase(context), code_(code) {}
    void stop() { request_stop(); }
    std::atomic<bool> entered = false;

private:
    int run_impl() override {
        entered = true;
        wait_until_stopped();
        return code_;
    }

    int code_;
};

class AppShellTest : public testing::Test {
protected:
    AppShellTest() {
        std::ignore = store_.set_field("log_dir", directory_.path());
        std::ignore = store_.set_field("app_dir", directory_.path());
        context_.emplace(store_, 0, nullptr);
    }

    test::TemporaryDirectory directory_;
    config::JsonConfigCodec codec_;
    config::ConfigStore<8192> store_{
        std::tie(K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR, K_LOG_DIR, K_LOG_MIN_LEVEL), codec_, ""};
    std::optional<AppContext> context_;
};

TEST_F(AppShellTest, AStopRequestEndsTheRunWithTheApplicationsCode) {
    WaitingApp app(*context_, 5);
    std::thread stopper([&app] {
        test::wait_until([&app] { return app.entered.load(); }, "the application runs");
        app.stop();
    });
    EXPECT_EQ(app.run(0, nullptr), 5);
    stopper.join();
}

TEST_F(AppShellTest, AStopSignalEndsTheRunWithItsNumberAnd128) {
    WaitingApp app(*context_);
    std::thread stopper([&app] {
        test::wait_until([&app] { return app.entered.load(); }, "the application runs");
        std::raise(SIGTERM);
    });
    EXPECT_EQ(app.run(0, nullptr), 128 + SIGTERM);
    stopper.join();
}

TEST_F(AppShellTest, NoStopSignalIsLostHoweverEarlyItComesInTheWait) {
    for (int round = 0; round < 200; ++round) {
        WaitingApp app(*context_);
        std::thread stopper([&app] {
            while (!app.entered) {
            }
            std::raise(SIGTERM);
        });
        EXPECT_EQ(app.run(0, nullptr), 128 + SIGTERM);
        stopper.join();
    }
}

TEST_F(AppShellTest, LinesLoggedDuringStartReachTheFile) {
    context_->logger().flush();
    std::string const log = read_file(directory_ / "shell-test/app.log").value_or("");
    EXPECT_NE(log.find("[shell-test] [INFO]"), std::string::npos);
    EXPECT_NE(log.find("Logger started, writing to console\n"), std::string::npos);
}

TEST_F(AppShellTest, ALogFolderThatCannotBeMadeDoesNotStopTheStart) {
    ASSERT_TRUE(store_.set_field("log_dir", "/proc/nowhere").first);
    context_.emplace(store_, 0, nullptr);
    context_->log().log(LogLevel::INFO, "still here");
    context_->logger().flush();
    std::string const log = read_file("/tmp/shell-test/app.log").value_or("");
    EXPECT_NE(log.find("still here"), std::string::npos);
}

TEST_F(AppShellTest, TheContextTellsWhoItIs) {
    EXPECT_EQ(context_->app_name(), "shell-test");
    EXPECT_EQ(context_->incident_dir(), directory_ / "shell-test/incidents");
    EXPECT_TRUE(context_->version().starts_with("0.0.0-"));
    EXPECT_FALSE(context_->executable_path().empty());
}

TEST(VerboseFlag, IsMatchedExactlyAndBehindTheProgramsName) {
    char const* const with[] = {"x", "a", "--verbose"};
    char const* const name_only[] = {"--verbose", "--verbose=1", "-v"};
    EXPECT_TRUE(detail::argv_requests_verbose(3, with));
    EXPECT_FALSE(detail::argv_requests_verbose(3, name_only));
    EXPECT_FALSE(detail::argv_requests_verbose(0, nullptr));
}

} // namespace
} // namespace tessaron
