#include "app/backtrace_signal_safe.hpp"

#include "app/crash_history.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/process_identity.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace tessaron::detail {
namespace {

std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

class BacktraceTest : public testing::Test {
protected:
    [[gnu::noinline]] std::vector<std::string> trace() {
        prepare_backtraces();
        write_backtrace_signal_safe(open_file(path_, O_WRONLY | O_CREAT | O_TRUNC).get());
        return lines_of(read_file(path_).value_or(""));
    }

    [[gnu::noinline]] std::vector<std::string> trace_from_depth(int depth) {
        auto lines = depth == 0 ? trace() : trace_from_depth(depth - 1);
        EXPECT_FALSE(lines.empty());
        return lines;
    }

    test::TemporaryDirectory directory_;
    std::string const path_ = directory_ / "trace";
};

TEST_F(BacktraceTest, EachFrameIsALineWithFileOffsetAndAddress) {
    auto const lines = trace();
    ASSERT_GE(lines.size(), 3U);
    for (std::string const& line : lines) {
        EXPECT_THAT(line,
                    testing::MatchesRegex("[^(]+\\([^)]*\\+0x[0-9a-f]+\\) \\[0x[0-9a-f]+\\]"));
    }
}

TEST_F(BacktraceTest, TheProgramsOwnFramesTellItsPath) {
    EXPECT_TRUE(trace().front().starts_with(get_executable_path() + "("));
}

TEST_F(BacktraceTest, AnExportedFunctionIsNamed) {
    std::string all;
    for (std::string const& line : trace()) {
        all += line + "\n";
    }
    EXPECT_NE(all.find("(__libc_start_main+0x"), std::string::npos) << all;
}

TEST_F(BacktraceTest, AtMostThirtyTwoFramesAreTold) {
    EXPECT_EQ(trace_from_depth(100).size(), K_CRASH_BACKTRACE_MAX);
}

} // namespace
} // namespace tessaron::detail
