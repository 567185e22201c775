#include "TestShell.hpp"
#include "app/incident_history.hpp"
#include "app/session_history.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/support/CapturedStream.hpp"
#include "tests/support/MulticastNode.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

class WaitingApp : public AppShellBase {
public:
    explicit WaitingApp(AppContext& context, int code = 0, bool declares_components = false)
        : AppShellBase(context, "test_shell", DefaultTerminationReasons::describe(),
                       std::make_unique<app_shell_detail::NoRuntime>(""), declares_components),
          code_(code) {
        m_argv_parser_ = [this](int, char const* const*) { return parsed_code; };
    }
    void stop() { request_stop(); }
    using AppShellBase::m_options;
    using AppShellBase::register_flush_on_exit;
    using AppShellBase::set_stop_hook;

    std::atomic<bool> entered = false;
    std::optional<int> parsed_code;
    std::function<void()> body;

private:
    int run_impl() override {
        entered = true;
        if (body) {
            body();
        } else {
            wait_until_stopped();
        }
        return code_;
    }

    int code_;
};

using AppShellTest = test::ShellFixture;

TEST_F(AppShellTest, WhoGetsTheInstanceLockNextHasItsNameAndItsAddressOnTheBus) {
    { WaitingApp const app(*context_); }
    std::vector<std::string> warnings;
    test::MulticastNode next(static_cast<std::uint32_t>(K_SHARED_BUS_ADDRESS.default_value),
                             context_->app_name());
    next.hub.set_warning_sink([&warnings](std::string const& text) { warnings.push_back(text); });
    next.join();
    EXPECT_THAT(warnings, testing::IsEmpty());
}

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

TEST_F(AppShellTest, TheBusReportOfAnApplicationThatDeclaresWhatItOffersIsPrintedInPlaceOfARun) {
    context_->hub().serve(
        "disk.check", [](auto const&) { return proto::bus::Bytes(); }, "Checks a path");
    WaitingApp app(*context_, 5, true);
    app.m_options.bus_report = true;
    test::CapturedStream console(std::cout);
    EXPECT_EQ(app.run(0, nullptr), 0);
    EXPECT_FALSE(app.entered);
    EXPECT_THAT(console.text(), testing::StartsWith("Hub report: 1 device known\n\n"));
    EXPECT_THAT(console.text(), testing::HasSubstr("[200] shell-test:\n"));
    EXPECT_THAT(console.text(), testing::HasSubstr("disk.check"));
    EXPECT_EQ(app.app_control().session_history(0).size(), 0U);
}

TEST_F(AppShellTest, TheBusReportOfAnyOtherChangesNothing) {
    WaitingApp app(*context_, 5);
    app.m_options.bus_report = true;
    app.body = [] {};
    EXPECT_EQ(app.run(0, nullptr), 5);
    EXPECT_TRUE(app.entered);
}

TEST_F(AppShellTest, TheRuntimeStateStandsInIncidentReports) {
    struct State final : IRuntimeState {
        std::string dump_named() const override { return "mode=calm"; }
        void save() override {}
        RawDump raw_dump_signal_safe() const noexcept override { return {}; }
    };
    struct App : AppShellBase {
        explicit App(AppContext& context)
            : AppShellBase(context, "test_shell", DefaultTerminationReasons::describe(),
                           std::make_unique<State>(), false) {}
        int run_impl() override { return 0; }
    };
    {
        App const app(*context_);
        context_->write_incident_report(LogLevel::ERROR, "x");
    }
    auto const paths = list_incident_reports(context_->incident_dir());
    ASSERT_EQ(paths.size(), 1U);
    EXPECT_THAT(read_file(paths[0]).value_or(""),
                testing::EndsWith("\n=== runtime state ===\nmode=calm\n"));
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

TEST_F(AppShellTest, ASessionLeavesItsStartAndItsStop) {
    WaitingApp app(*context_);
    app.body = [] {};
    char program[] = "prog";
    char first[] = "--first";
    char second[] = "b|c";
    char* argv[] = {program, first, second, nullptr};
    EXPECT_EQ(app.run(3, argv), 0);
    auto const records = app.app_control().session_history(0);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_TRUE(records[0].is_start);
    EXPECT_EQ(records[0].pid, ::getpid());
    EXPECT_EQ(records[0].exe, context_->executable_path());
    EXPECT_EQ(records[0].user, context_->user_name());
    EXPECT_EQ(records[0].args, (std::vector<std::string>{"--first", "b", "c"}));
    EXPECT_FALSE(records[1].is_start);
    EXPECT_EQ(records[1].reason, "normal");
    EXPECT_GT(records[1].log_line, records[0].log_line);
}

TEST_F(AppShellTest, AStopSignalIsTheSessionsReason) {
    WaitingApp app(*context_);
    app.body = [] { std::raise(SIGHUP); };
    EXPECT_EQ(app.run(0, nullptr), 128 + SIGHUP);
    EXPECT_EQ(app.app_control().session_history(0).back().reason, "signal: Hangup");
}

TEST_F(AppShellTest, AnExceptionOutOfTheMainLoopIsRecordedAndPassedOn) {
    WaitingApp app(*context_);
    app.body = [] { throw std::runtime_error("a = b c"); };
    EXPECT_THROW(app.run(0, nullptr), std::runtime_error);
    EXPECT_EQ(app.app_control().session_history(0).back().reason, "error: a = b c");
    app.body = [] { throw 42; };
    EXPECT_THROW(app.run(0, nullptr), int);
    EXPECT_EQ(app.app_control().session_history(0).back().reason, "error: unknown exception");
}

TEST_F(AppShellTest, ARequestedRestartWithoutArgumentsToRestartWithJustEnds) {
    WaitingApp app(*context_, 3);
    app.body = [&app] { app.app_control().request_reboot("because = why not"); };
    EXPECT_EQ(app.run(0, nullptr), 3);
    EXPECT_EQ(app.app_control().session_history(0).back().reason, "reboot: because = why not");
    EXPECT_TRUE(app.app_control().reboot_requested());
}

TEST_F(AppShellTest, ASecondRunWithinTheFirstIsRefused) {
    WaitingApp app(*context_);
    int inner = 0;
    app.body = [&] { inner = app.run(0, nullptr); };
    EXPECT_EQ(app.run(0, nullptr), 0);
    EXPECT_EQ(inner, 255);
    EXPECT_EQ(app.app_control().session_history(0).size(), 2U);
}

TEST_F(AppShellTest, WhatTheCommandLineEndsLeavesNoSession) {
    WaitingApp app(*context_);
    app.parsed_code = 106;
    EXPECT_EQ(app.run(0, nullptr), 106);
    EXPECT_FALSE(app.entered);
    EXPECT_TRUE(app.app_control().session_history(0).empty());
}

TEST_F(AppShellTest, ListingTheConfigurationLeavesNoSession) {
    WaitingApp app(*context_);
    app.m_options.list_config = true;
    EXPECT_EQ(app.run(0, nullptr), 0);
    EXPECT_FALSE(app.entered);
    EXPECT_TRUE(app.app_control().session_history(0).empty());
}

TEST_F(AppShellTest, FlushCallbacksRunInOrderAtTheEndWhateverOneOfThemThrows) {
    std::vector<int> calls;
    {
        WaitingApp app(*context_);
        app.register_flush_on_exit([&calls] { calls.push_back(1); });
        app.register_flush_on_exit([&calls] {
            calls.push_back(2);
            throw std::runtime_error("ignored");
        });
        app.register_flush_on_exit([&calls] { calls.push_back(3); });
        EXPECT_TRUE(calls.empty());
    }
    EXPECT_EQ(calls, (std::vector<int>{1, 2, 3}));
}

TEST_F(AppShellTest, TheStopHookIsCalledWithAStopRequest) {
    std::atomic<int> calls = 0;
    {
        WaitingApp app(*context_);
        app.set_stop_hook([&calls] { ++calls; });
        app.stop();
        EXPECT_EQ(calls, 1);
    }
    EXPECT_EQ(calls, 1) << "not by the end of the shell: what the hook touches is gone by then";
}

TEST_F(AppShellTest, TheStopHookIsNotCalledByTheEndOfTheShell) {
    std::atomic<int> calls = 0;
    {
        WaitingApp app(*context_);
        app.set_stop_hook([&calls] { ++calls; });
    }
    EXPECT_EQ(calls, 0);
}

TEST_F(AppShellTest, TheLockIsHeldForAsLongAsTheShellLives) {
    {
        WaitingApp app(*context_);
        EXPECT_THROW(AppContext(store_, 0, nullptr), AlreadyRunningError);
    }
    // One after the other: contexts of one process share the buffers of their bus nodes.
    context_.reset();
    EXPECT_NO_THROW(context_.emplace(store_, 0, nullptr));
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
