#include "app/ColorHelpFormatter.hpp"

#include "tests/unit/app/utilities/EnvironmentVariable.hpp"
#include "tests/unit/app/utilities/RedirectedStandardOutput.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace tessaron::detail {
namespace {

using test::EnvironmentVariable;
using test::RedirectedStandardOutput;

/// A command line with all that the formatter treats: two groups, a positional and a footer.
class ColorHelp : public testing::Test {
protected:
    ColorHelp() : app_("Keeps things running", "keeper") {
        app_.formatter(std::make_shared<ColorHelpFormatter>());
        app_.set_help_flag("-h,--help", "Print this help message and exit")->group("General");
        app_.add_flag("--verbose", verbose_, "Say more")->group("Diagnostics");
        app_.add_option("file", file_, "What to keep");
        app_.footer("Built: \n    Date: today");
    }

    std::string help_on(RedirectedStandardOutput::To output,
                        std::optional<std::string> const& no_color = std::nullopt) const {
        EnvironmentVariable const variable("NO_COLOR", no_color);
        RedirectedStandardOutput const redirected(output);
        return app_.help();
    }

    CLI::App app_;
    bool verbose_ = false;
    std::string file_;
};

constexpr char const* K_PLAIN_HELP = R"(Description:
    Keeps things running
Usage: keeper [OPTIONS] [file]

Positionals:
  file TEXT                   What to keep

General:
  -h,--help                   Print this help message and exit


Diagnostics:
  --verbose                   Say more


Built: 
    Date: today
)";

TEST_F(ColorHelp, WithoutATerminalThereIsNoEscapeSequence) {
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::nothing), K_PLAIN_HELP);
}

TEST_F(ColorHelp, NoColorSwitchesItOffOnATerminalEvenWhenEmpty) {
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::terminal, "1"), K_PLAIN_HELP);
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::terminal, ""), K_PLAIN_HELP);
}

TEST_F(ColorHelp, OnATerminalHeadingsUsageGroupsAndFooterAreMarked) {
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::terminal),
              "\033[1mDescription:\033[0m\n"
              "    Keeps things running\n"
              "\033[1mUsage: keeper [OPTIONS] [file]\n"
              "\033[0m\n"
              "\033[1;36mPositionals:\033[0m\n"
              "  file TEXT                   What to keep\n"
              "\n"
              "\033[1;36mGeneral:\033[0m\n"
              "  -h,--help                   Print this help message and exit\n"
              "\n"
              "\n"
              "\033[1;36mDiagnostics:\033[0m\n"
              "  --verbose                   Say more\n"
              "\n"
              "\n"
              "\033[2mBuilt: \n"
              "    Date: today\n"
              "\033[0m");
}

TEST_F(ColorHelp, ColorIsAskedForAnewOnEveryCall) {
    std::string const colored = help_on(RedirectedStandardOutput::To::terminal);
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::nothing), K_PLAIN_HELP);
    EXPECT_EQ(help_on(RedirectedStandardOutput::To::terminal), colored);
}

TEST_F(ColorHelp, WithoutDescriptionOrFooterNothingStandsInTheirPlace) {
    app_.description("");
    app_.footer("");
    std::string const help = help_on(RedirectedStandardOutput::To::terminal);
    EXPECT_EQ(help.rfind("\033[1mUsage: keeper", 0), 0U) << help;
    EXPECT_EQ(help.find("Description:"), std::string::npos) << help;
    EXPECT_EQ(help.find("\033[2m"), std::string::npos) << help;
}

TEST_F(ColorHelp, AGroupWithoutANameIsLeftToTheLibrary) {
    ColorHelpFormatter const formatter;
    std::vector<CLI::Option const*> const options = {app_.get_option("--verbose")};
    RedirectedStandardOutput const terminal(RedirectedStandardOutput::To::terminal);
    EnvironmentVariable const variable("NO_COLOR", std::nullopt);
    EXPECT_EQ(formatter.make_group("", false, options),
              CLI::Formatter().make_group("", false, options));
}

} // namespace
} // namespace tessaron::detail
