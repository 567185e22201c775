#include "app/config_table.hpp"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <tuple>

namespace tessaron::config {
namespace {

constexpr FieldSpec<char const*> K_NAME{"name", "Who it is", "nobody"};
constexpr FieldSpec<long long> K_PORT{"port", "Where it listens", 80};

std::string printed(Config const& config, bool use_color) {
    std::ostringstream out;
    config_table(config).print(out, use_color);
    return out.str();
}

Config sample() {
    Config config(std::tie(K_NAME, K_PORT));
    config.set<long long>("port", 7080);
    return config;
}

TEST(ConfigTable, ListsEveryFieldInOrderAndMarksTheDefaults) {
    EXPECT_EQ(printed(sample(), false),
              "┌──────┬────────┬──────────────────┬──────────────────┐\n"
              "│ NAME │ TYPE   │ VALUE            │ DESCRIPTION      │\n"
              "├──────┼────────┼──────────────────┼──────────────────┤\n"
              "│ name │ string │ nobody [default] │ Who it is        │\n"
              "├──────┼────────┼──────────────────┼──────────────────┤\n"
              "│ port │ int    │ 7080             │ Where it listens │\n"
              "└──────┴────────┴──────────────────┴──────────────────┘\n");
}

TEST(ConfigTable, ColoursNamesTypesAndValuesButNotDescriptions) {
    std::string const text = printed(sample(), true);
    EXPECT_NE(text.find("│ \033[1;36mname\033[0m │ \033[32mstring\033[0m │ "
                        "\033[2mnobody [default]\033[0m │ Who it is        │\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("│ \033[1;36mport\033[0m │ \033[34mint\033[0m    │ "
                        "\033[1m7080\033[0m             │ Where it listens │\n"),
              std::string::npos)
        << text;
}

TEST(ConfigTable, AValueSetToItsDefaultCountsAsTheDefault) {
    Config config = sample();
    config.set<long long>("port", 80);
    EXPECT_NE(printed(config, false).find("│ 80 [default] "), std::string::npos);
}

} // namespace
} // namespace tessaron::config
