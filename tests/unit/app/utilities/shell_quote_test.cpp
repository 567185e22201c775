#include "app/utilities/shell_quote.hpp"

#include "app/utilities/shell_command.hpp"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace tessaron {
namespace {

/// Lets one real shell print all values, each behind a NUL, and compares what arrives.
void expect_shell_gives_back(std::vector<std::string> const& values) {
    std::string command = "printf '%s\\0'";
    std::string expected;
    for (auto const& value : values) {
        command += " '" + shell_quote(value) + "'";
        expected += value + '\0';
    }
    auto const output = capture_shell(command + "; printf end");
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(output->status, 0);
    EXPECT_TRUE(output->text == expected + "end");
}

TEST(ShellQuote, SingleQuoteBecomesFourCharacters) {
    EXPECT_EQ(shell_quote("it's"), "it'\\''s");
    EXPECT_EQ(shell_quote("''"), "'\\'''\\''");
    EXPECT_EQ(shell_quote(""), "");
    EXPECT_EQ(shell_quote("$(a) `b` \"c\" \\"), "$(a) `b` \"c\" \\");
}

TEST(ShellQuote, EveryByteSurvivesTheShellAloneAndNextToAQuote) {
    std::vector<std::string> values;
    for (int byte = 1; byte < 256; ++byte) {
        std::string const one(1, static_cast<char>(byte));
        values.insert(values.end(), {one, one + "'", "'" + one, one + one});
    }
    expect_shell_gives_back(values);
}

TEST(ShellQuote, RandomBytesSurviveTheShell) {
    std::mt19937 random(20240229);
    // Half of all bytes are those that mean something to a shell.
    std::string const special = "'\"\\$`;&|<>()*?[]!#~ \t\n{}=%-";
    for (int batch = 0; batch < 10; ++batch) {
        std::vector<std::string> values(300);
        for (auto& value : values) {
            for (auto left = random() % 40; left > 0; --left) {
                value += random() % 2 == 0 ? special[random() % special.size()]
                                           : static_cast<char>(1 + random() % 255);
            }
        }
        expect_shell_gives_back(values);
    }
}

TEST(ShellQuote, HostileValuesRunNothing) {
    expect_shell_gives_back({"'; echo pwned; '", "$(echo pwned)", "`echo pwned`", "' || exit 3 #",
                             "\n echo pwned \n", "'\\''; exit 3; '", "\\'; exit 3 #"});
}

} // namespace
} // namespace tessaron
