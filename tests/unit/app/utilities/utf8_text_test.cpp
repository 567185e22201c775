#include "app/utilities/utf8_text.hpp"

#include "tests/unit/app/utilities/EnvironmentVariable.hpp"
#include "tests/unit/app/utilities/RedirectedStandardOutput.hpp"

#include <gtest/gtest.h>
#include <memory>

namespace tessaron::detail {
namespace {

using Lines = std::vector<std::string>;
using test::EnvironmentVariable;
using test::RedirectedStandardOutput;

/// Calls `look` with a view whose end is the end of its allocation, so that the address sanitizer
/// sees every byte that is read behind it.
template <typename Look>
auto with_exact_allocation(std::string const& text, Look look) {
    auto const bytes = std::make_unique<char[]>(text.size());
    text.copy(bytes.get(), text.size());
    return look(std::string_view(bytes.get(), text.size()));
}

std::string truncated(std::string const& text, std::size_t limit) {
    return with_exact_allocation(
        text, [&](std::string_view view) { return std::string(utf8_truncate(view, limit)); });
}

Lines wrapped(std::string const& text, std::size_t width) {
    return with_exact_allocation(text,
                                 [&](std::string_view view) { return wrap_text(view, width); });
}

TEST(Utf8Length, CountsCodePointsOfOneToFourBytes) {
    EXPECT_EQ(utf8_length(""), 0U);
    EXPECT_EQ(utf8_length("hello"), 5U);
    EXPECT_EQ(utf8_length("héllo"), 5U);
    EXPECT_EQ(utf8_length("│─"), 2U);
    EXPECT_EQ(utf8_length("a\U0001F600b"), 3U);
}

TEST(Utf8Length, StrayContinuationBytesDoNotCountAndLeadBytesDo) {
    EXPECT_EQ(utf8_length("\x80\xBF"), 0U);
    EXPECT_EQ(utf8_length("\xC3\xC3\xF0"), 3U);
    EXPECT_EQ(utf8_length(std::string_view("a\0b", 3)), 3U);
}

TEST(Utf8Length, EscapeSequencesCountLikeText) {
    EXPECT_EQ(utf8_length("\033[1mx\033[0m"), 9U);
}

TEST(Utf8Truncate, TakesAtMostTheLimitAndNeverHalfACharacter) {
    EXPECT_EQ(truncated("héllo", 0), "");
    EXPECT_EQ(truncated("héllo", 1), "h");
    EXPECT_EQ(truncated("héllo", 2), "hé");
    EXPECT_EQ(truncated("─│┌", 2), "─│");
    EXPECT_EQ(truncated("a\U0001F600b", 2), "a\U0001F600");
}

TEST(Utf8Truncate, ALimitAtOrBeyondTheLengthTakesTheWholeText) {
    EXPECT_EQ(truncated("héllo", 5), "héllo");
    EXPECT_EQ(truncated("héllo", 1000), "héllo");
    EXPECT_EQ(truncated("", 3), "");
}

TEST(Utf8Truncate, ACharacterCutOffByTheEndIsTakenAsFarAsItGoes) {
    for (std::string const cut : {"\xC3", "\xE2\x94", "\xE2", "\xF0\x9F\x98", "\xF0"}) {
        EXPECT_EQ(truncated(cut, 1), cut);
        EXPECT_EQ(truncated("ab" + cut, 3), "ab" + cut);
    }
}

TEST(Utf8Truncate, ByteThatBeginsNoCharacterIsOneStep) {
    EXPECT_EQ(truncated("\x80\x80\x80", 2), "\x80\x80");
    EXPECT_EQ(truncated("\xFF\xF8z", 2), "\xFF\xF8");
}

TEST(Utf8Truncate, TheLeadByteDecidesWhateverFollows) {
    EXPECT_EQ(truncated("\xC3xyz", 1), "\xC3x");
    EXPECT_EQ(truncated("\xF0wxyz", 1), "\xF0wxy");
}

TEST(WrapText, AWidthOfZeroLeavesTheTextAsItIs) {
    EXPECT_EQ(wrapped("  many   words and blanks  ", 0), Lines{"  many   words and blanks  "});
    EXPECT_EQ(wrapped("", 0), Lines{""});
}

TEST(WrapText, WordsFillALineUpToTheWidth) {
    EXPECT_EQ(wrapped("aaa bbb ccc", 7), (Lines{"aaa bbb", "ccc"}));
    EXPECT_EQ(wrapped("aaa bbb ccc", 6), (Lines{"aaa", "bbb", "ccc"}));
    EXPECT_EQ(wrapped("aaa bbb ccc", 11), Lines{"aaa bbb ccc"});
}

TEST(WrapText, RunsOfSpacesCollapseAndOtherBlanksAreText) {
    EXPECT_EQ(wrapped("   a    b   ", 10), Lines{"a b"});
    EXPECT_EQ(wrapped("a\tb\nc", 10), Lines{"a\tb\nc"});
}

TEST(WrapText, TextWithoutAWordIsOneEmptyLine) {
    EXPECT_EQ(wrapped("", 10), Lines{""});
    EXPECT_EQ(wrapped("     ", 2), Lines{""});
}

TEST(WrapText, WordOfTwentyFiveIsCutToTenTenAndFive) {
    EXPECT_EQ(wrapped("abcdefghijklmnopqrstuvwxy", 10),
              (Lines{"abcdefghij", "klmnopqrst", "uvwxy"}));
}

TEST(WrapText, ALongWordBeginsItsOwnLineAndItsRestGoesOnFilling) {
    EXPECT_EQ(wrapped("a bcdefgh i", 4), (Lines{"a", "bcde", "fgh", "i"}));
    EXPECT_EQ(wrapped("a bcdef g", 4), (Lines{"a", "bcde", "f g"}));
}

TEST(WrapText, AWordOfExactlyTheWidthOrAMultipleLeavesNoEmptyLine) {
    EXPECT_EQ(wrapped("abcd", 4), Lines{"abcd"});
    EXPECT_EQ(wrapped("abcdefgh", 4), (Lines{"abcd", "efgh"}));
    EXPECT_EQ(wrapped("ab cd", 1), (Lines{"a", "b", "c", "d"}));
}

TEST(WrapText, WidthIsInCharactersNotInBytes) {
    EXPECT_EQ(wrapped("ééé ééé", 7), Lines{"ééé ééé"});
    EXPECT_EQ(wrapped("ééééé", 2), (Lines{"éé", "éé", "é"}));
}

TEST(WrapText, InvalidTextKeepsAllItsBytesAndEnds) {
    EXPECT_EQ(wrapped("\x80\x80\x80", 1), Lines{"\x80\x80\x80"});
    EXPECT_EQ(wrapped("\xF0wxyz", 1), (Lines{"\xF0wxy", "z"}));
    EXPECT_EQ(wrapped("\xF0\xF0\xF0", 2), Lines{"\xF0\xF0\xF0"});
}

TEST(AnsiColorize, PutsTheTextBetweenColorAndReset) {
    EXPECT_EQ(ansi_colorize("text", "\033[31m", true), "\033[31mtext\033[0m");
    EXPECT_EQ(ansi_colorize("", "\033[31m", true), "\033[31m\033[0m");
}

TEST(AnsiColorize, WithoutAColorOrNotEnabledTheTextStaysAlone) {
    EXPECT_EQ(ansi_colorize("text", "\033[31m", false), "text");
    EXPECT_EQ(ansi_colorize("text", "", true), "text");
    EXPECT_EQ(ansi_colorize("text", nullptr, true), "text");
}

bool color_on(RedirectedStandardOutput::To output, std::optional<std::string> const& no_color) {
    EnvironmentVariable const variable("NO_COLOR", no_color);
    RedirectedStandardOutput const redirected(output);
    return stdout_supports_color();
}

TEST(StdoutSupportsColor, ATerminalDoesAndAnythingElseDoesNot) {
    EXPECT_TRUE(color_on(RedirectedStandardOutput::To::terminal, std::nullopt));
    EXPECT_FALSE(color_on(RedirectedStandardOutput::To::nothing, std::nullopt));
}

TEST(StdoutSupportsColor, NoColorSwitchesItOffEvenWhenEmpty) {
    EXPECT_FALSE(color_on(RedirectedStandardOutput::To::terminal, "1"));
    EXPECT_FALSE(color_on(RedirectedStandardOutput::To::terminal, "0"));
    EXPECT_FALSE(color_on(RedirectedStandardOutput::To::terminal, ""));
}

} // namespace
} // namespace tessaron::detail
