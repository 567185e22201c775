#include "logger/LineIndex.hpp"

#include "logger/LineReader.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/unit/logger/file_helpers.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using test::put_file;
using testing::ElementsAre;
using testing::IsEmpty;

/// Lines "L<first>" to "L<last>", of different lengths.
std::string numbered_lines(int first, int last, std::string const& prefix = "L") {
    std::string text;
    for (int i = first; i <= last; ++i) {
        text += prefix + std::to_string(i) + "\n";
    }
    return text;
}

struct LineIndexTest : testing::Test {
    LogRange read(std::uint64_t from, std::uint64_t to) {
        UniqueFd const file = open_file(path, O_RDONLY);
        return index.read(path, file.get(), from, to);
    }
    void append(std::string const& text) { ASSERT_TRUE(write_file(path, text, O_APPEND)); }

    test::TemporaryDirectory directory;
    std::string const path = directory / "app.log";
    LineIndex index;
};

TEST_F(LineIndexTest, RangeIncludesBothBounds) {
    put_file(path, numbered_lines(1, 10));
    LogRange const range = read(3, 5);
    EXPECT_TRUE(range.available);
    EXPECT_EQ(range.total_lines, 10U);
    EXPECT_EQ(range.first_line, 3U);
    EXPECT_THAT(range.lines, ElementsAre("L3", "L4", "L5"));
}

TEST_F(LineIndexTest, ZeroBoundsMeanTheWholeFile) {
    put_file(path, numbered_lines(1, 3));
    LogRange const range = read(0, 0);
    EXPECT_EQ(range.first_line, 1U);
    EXPECT_THAT(range.lines, ElementsAre("L1", "L2", "L3"));
}

TEST_F(LineIndexTest, RangeBeyondTheEndIsCutToTheFile) {
    put_file(path, numbered_lines(1, 3));
    EXPECT_THAT(read(3, 99).lines, ElementsAre("L3"));
}

TEST_F(LineIndexTest, EmptyRangeStillHasTheTotal) {
    put_file(path, numbered_lines(1, 3));
    for (auto const& range : {read(4, 0), read(4, 9), read(3, 2)}) {
        EXPECT_TRUE(range.available);
        EXPECT_EQ(range.total_lines, 3U);
        EXPECT_EQ(range.first_line, 0U);
        EXPECT_THAT(range.lines, IsEmpty());
    }
}

TEST_F(LineIndexTest, MissingFileIsAnEmptyRange) {
    LogRange const range = read(1, 0);
    EXPECT_TRUE(range.available);
    EXPECT_EQ(range.total_lines, 0U);
}

TEST_F(LineIndexTest, EveryRangeOfAnIndexedFileIsRight) {
    put_file(path, numbered_lines(1, 1500));
    std::ignore = read(1, 0);
    EXPECT_EQ(index.checkpoint_count(), 6U); // lines 1, 257, 513, 769, 1025, 1281
    for (std::uint64_t const from : {1, 2, 255, 256, 257, 258, 512, 513, 1281, 1500}) {
        LogRange const range = read(from, from + 1);
        EXPECT_EQ(range.total_lines, 1500U);
        EXPECT_EQ(range.first_line, from);
        ASSERT_FALSE(range.lines.empty());
        EXPECT_EQ(range.lines[0], "L" + std::to_string(from));
    }
}

TEST_F(LineIndexTest, ScanBeginsAtACheckpointNotAtTheBeginning) {
    put_file(path, numbered_lines(1, 1000));
    std::ignore = read(1, 0);
    // Damage in front of the checkpoint of line 769 that keeps every offset: the scan of a later
    // line must not notice that a newline is gone.
    std::string text = test::text_of(path);
    text[text.find('\n')] = '_';
    UniqueFd const file = open_file(path, O_WRONLY);
    ASSERT_TRUE(write_all(file.get(), text));
    EXPECT_THAT(read(800, 800).lines, ElementsAre("L800"));
    EXPECT_THAT(read(1, 1).lines, ElementsAre("L1_L2"));
}

TEST_F(LineIndexTest, GrownFileExtendsTheIndexWhereverTheScanBegan) {
    put_file(path, numbered_lines(1, 300));
    std::ignore = read(1, 0);
    append(numbered_lines(301, 1000));
    LogRange const range = read(900, 901);
    EXPECT_EQ(range.total_lines, 1000U);
    EXPECT_THAT(range.lines, ElementsAre("L900", "L901"));
    EXPECT_EQ(index.checkpoint_count(), 4U); // lines 1, 257, 513, 769
}

TEST_F(LineIndexTest, ShrunkFileRebuildsTheIndex) {
    put_file(path, numbered_lines(1, 1000));
    std::ignore = read(1, 0);
    put_file(path, numbered_lines(1, 300, "other "));
    LogRange const range = read(258, 258);
    EXPECT_EQ(range.total_lines, 300U);
    EXPECT_THAT(range.lines, ElementsAre("other 258"));
}

TEST_F(LineIndexTest, OtherFileOfTheSameNameRebuildsTheIndexEvenIfItIsLonger) {
    put_file(path, numbered_lines(1, 600));
    std::ignore = read(1, 0);
    ASSERT_EQ(std::rename(path.c_str(), (path + ".0").c_str()), 0);
    put_file(path, numbered_lines(1, 900, "a longer line "));
    EXPECT_THAT(read(514, 514).lines, ElementsAre("a longer line 514"));
}

TEST_F(LineIndexTest, ForgottenFileIsReadFromItsBeginning) {
    put_file(path, numbered_lines(1, 300));
    std::ignore = read(1, 0);
    put_file(path, numbered_lines(1, 400, "emptied and grown "));
    index.forget();
    EXPECT_EQ(index.checkpoint_count(), 0U);
    EXPECT_THAT(read(258, 258).lines, ElementsAre("emptied and grown 258"));
}

TEST_F(LineIndexTest, LastLineWithoutNewlineCountsAndIsReadWholeLater) {
    put_file(path, numbered_lines(1, 256) + "half");
    EXPECT_THAT(read(257, 0).lines, ElementsAre("half"));
    append(" done\nnext\n");
    LogRange const range = read(257, 0);
    EXPECT_EQ(range.total_lines, 258U);
    EXPECT_THAT(range.lines, ElementsAre("half done", "next"));
}

TEST(LineReader, FindsEmptyLinesAndTheRestBehindTheLastNewline) {
    test::TemporaryDirectory directory;
    put_file(directory / "f", "a\n\nb");
    UniqueFd const file = open_file(directory / "f", O_RDONLY);
    LineReader reader(file.get());
    EXPECT_EQ(reader.next(), "a");
    EXPECT_EQ(reader.offset(), 2U);
    EXPECT_EQ(reader.next(), "");
    EXPECT_EQ(reader.next(), "b");
    EXPECT_EQ(reader.offset(), 4U);
    EXPECT_EQ(reader.next(), std::nullopt);
    EXPECT_EQ(count_lines(directory / "f"), 3U);
}

TEST(LineReader, LineMayBeLongerThanAnyBlock) {
    test::TemporaryDirectory directory;
    std::string const giant(1'000'000, 'g');
    put_file(directory / "f", "a\n" + giant + "\nz\n");
    UniqueFd const file = open_file(directory / "f", O_RDONLY);
    LineReader reader(file.get());
    EXPECT_EQ(reader.next(), "a");
    EXPECT_EQ(reader.next(), giant);
    EXPECT_EQ(reader.next(), "z");
    EXPECT_EQ(reader.next(), std::nullopt);
}

TEST(LineReader, MissingAndEmptyFilesHaveNoLines) {
    test::TemporaryDirectory directory;
    put_file(directory / "f", "");
    EXPECT_EQ(count_lines(directory / "f"), 0U);
    EXPECT_EQ(count_lines(directory / "none"), 0U);
}

} // namespace
} // namespace tessaron
