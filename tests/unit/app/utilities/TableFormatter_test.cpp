#include "app/utilities/TableFormatter.hpp"

#include <gtest/gtest.h>
#include <sstream>

namespace tessaron {
namespace {

using Rows = std::vector<std::vector<TableFormatter::Cell>>;

std::string printed(std::vector<TableFormatter::Column> columns, Rows const& rows,
                    bool use_color = false) {
    TableFormatter table(std::move(columns));
    for (auto const& row : rows) {
        table.add_row(row);
    }
    std::ostringstream out;
    table.print(out, use_color);
    return out.str();
}

TEST(TableFormatter, ColumnsAreAsWideAsTheirLongestText) {
    EXPECT_EQ(printed({{"NAME", 0}, {"P", 0}}, {{{"a", ""}, {"8080", ""}}, {{"longer", ""}, {}}}),
              "┌────────┬──────┐\n"
              "│ NAME   │ P    │\n"
              "├────────┼──────┤\n"
              "│ a      │ 8080 │\n"
              "├────────┼──────┤\n"
              "│ longer │      │\n"
              "└────────┴──────┘\n");
}

TEST(TableFormatter, TableWithoutRowsEndsBelowItsHeader) {
    EXPECT_EQ(printed({{"NAME", 0}, {"VALUE", 3}}, {}), "┌──────┬───────┐\n"
                                                        "│ NAME │ VALUE │\n"
                                                        "├──────┼───────┤\n");
}

TEST(TableFormatter, WidthIsCountedInCharactersNotInBytes) {
    EXPECT_EQ(printed({{"H", 0}}, {{{"héllo", ""}}, {{"hello", ""}}, {{"é", ""}}}), "┌───────┐\n"
                                                                                    "│ H     │\n"
                                                                                    "├───────┤\n"
                                                                                    "│ héllo │\n"
                                                                                    "├───────┤\n"
                                                                                    "│ hello │\n"
                                                                                    "├───────┤\n"
                                                                                    "│ é     │\n"
                                                                                    "└───────┘\n");
}

TEST(TableFormatter, HeaderIsNeverCappedAndCellsWrapToItsWidth) {
    EXPECT_EQ(printed({{"twenty characters ..", 10}},
                      {{{"0123456789 0123456789", ""}}, {{"0123456789 012345678", ""}}}),
              "┌──────────────────────┐\n"
              "│ twenty characters .. │\n"
              "├──────────────────────┤\n"
              "│ 0123456789           │\n"
              "│ 0123456789           │\n"
              "├──────────────────────┤\n"
              "│ 0123456789 012345678 │\n"
              "└──────────────────────┘\n");
}

TEST(TableFormatter, WordOfTwentyFiveInAColumnOfTenTakesThreeLines) {
    EXPECT_EQ(printed({{"W", 10}, {"N", 0}}, {{{"abcdefghijklmnopqrstuvwxy", ""}, {"1", ""}}}),
              "┌────────────┬───┐\n"
              "│ W          │ N │\n"
              "├────────────┼───┤\n"
              "│ abcdefghij │ 1 │\n"
              "│ klmnopqrst │   │\n"
              "│ uvwxy      │   │\n"
              "└────────────┴───┘\n");
}

TEST(TableFormatter, EmptyCellGivesOneEmptyLine) {
    EXPECT_EQ(printed({{"A", 0}}, {{{"", ""}}, {{"x", ""}}}), "┌───┐\n"
                                                              "│ A │\n"
                                                              "├───┤\n"
                                                              "│   │\n"
                                                              "├───┤\n"
                                                              "│ x │\n"
                                                              "└───┘\n");
}

TEST(TableFormatter, ColumnOfNothingHasNoWidth) {
    EXPECT_EQ(printed({{"", 0}, {"A", 0}}, {{{"", ""}, {"x", ""}}}), "┌──┬───┐\n"
                                                                     "│  │ A │\n"
                                                                     "├──┼───┤\n"
                                                                     "│  │ x │\n"
                                                                     "└──┴───┘\n");
}

TEST(TableFormatter, CellsAreMeasuredAsGivenAndThenWrapped) {
    EXPECT_EQ(printed({{"A", 0}}, {{{"a    b", ""}}}), "┌────────┐\n"
                                                       "│ A      │\n"
                                                       "├────────┤\n"
                                                       "│ a b    │\n"
                                                       "└────────┘\n");
}

TEST(TableFormatter, WithColorHeadersAreBoldAndOnlyAFirstLineHasItsCellsColor) {
    EXPECT_EQ(printed({{"NAME", 0}, {"TEXT", 5}},
                      {{{"a", "\033[1;36m"}, {"one two", "\033[33m"}}, {{"é", ""}, {"x", ""}}},
                      true),
              "┌──────┬───────┐\n"
              "│ \033[1mNAME\033[0m │ \033[1mTEXT\033[0m  │\n"
              "├──────┼───────┤\n"
              "│ \033[1;36ma\033[0m    │ \033[33mone\033[0m   │\n"
              "│      │ two   │\n"
              "├──────┼───────┤\n"
              "│ é    │ x     │\n"
              "└──────┴───────┘\n");
}

TEST(TableFormatter, WithoutColorThereIsNoEscapeSequence) {
    EXPECT_EQ(printed({{"NAME", 0}}, {{{"a", "\033[1;36m"}}}), "┌──────┐\n"
                                                               "│ NAME │\n"
                                                               "├──────┤\n"
                                                               "│ a    │\n"
                                                               "└──────┘\n");
}

TEST(TableFormatter, ShortRowsAreFilledUpAndLongOnesCut) {
    EXPECT_EQ(printed({{"A", 0}, {"B", 0}}, {{{"1", ""}}, {{"1", ""}, {"2", ""}, {"3333", ""}}}),
              "┌───┬───┐\n"
              "│ A │ B │\n"
              "├───┼───┤\n"
              "│ 1 │   │\n"
              "├───┼───┤\n"
              "│ 1 │ 2 │\n"
              "└───┴───┘\n");
}

TEST(TableFormatter, InvalidTextWiderThanItsColumnIsPrintedWithoutPadding) {
    // The first byte announces three more, so two steps of the cut take five bytes that count.
    EXPECT_EQ(printed({{"A", 2}}, {{{"\xF0xyzab", ""}}}), "┌────┐\n"
                                                          "│ A  │\n"
                                                          "├────┤\n"
                                                          "│ \xF0xyza │\n"
                                                          "│ b  │\n"
                                                          "└────┘\n");
}

} // namespace
} // namespace tessaron
