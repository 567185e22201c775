#pragma once

#include "logger/Logger.hpp"
#include "tests/support/CapturedStream.hpp"
#include "tests/support/FakeTimeProvider.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/logger/file_helpers.hpp"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <unistd.h>

namespace tessaron::test {

/// A logger with a clock that stands still, a captured console and a label nobody else uses, since
/// the fallback file's place follows from the label.
class LoggerFixture : public testing::Test {
protected:
    ~LoggerFixture() override {
        logger.stop_async();
        std::error_code ignored;
        std::filesystem::remove_all(fallback_directory, ignored);
    }

    /// Logs one line and waits until all that follows from it is done.
    void log(std::string const& message, LogLevel level = LogLevel::INFO) {
        logger.log(level, message);
        logger.flush();
    }

    TemporaryDirectory directory;
    FakeTimeProvider clock;
    CapturedStream console{std::cout};
    std::string const label = unique_label();
    std::string const fallback_directory = "/tmp/" + label;
    std::string const fallback_path = fallback_directory + "/app.log";
    std::string const log_directory = directory / "logs";
    std::string const path = log_directory + "/app.log";
    Logger logger{label, LogLevel::TRACE, clock};

private:
    static std::string unique_label() {
        static std::atomic<int> s_count{0};
        return "mirel-logger-test-" + std::to_string(getpid()) + "-" + std::to_string(++s_count);
    }
};

} // namespace tessaron::test
