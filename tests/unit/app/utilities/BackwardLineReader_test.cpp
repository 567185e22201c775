#include "app/utilities/BackwardLineReader.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace tessaron {
namespace {

struct Line {
    std::string text;
    std::uint64_t offset = 0;
    bool operator==(Line const&) const = default;
};

std::ostream& operator<<(std::ostream& stream, Line const& line) {
    return stream << line.offset << ":" << testing::PrintToString(line.text);
}

class BackwardLineReaderTest : public testing::Test {
protected:
    void put(std::string const& contents) {
        ASSERT_TRUE(write_file(path_, contents, O_TRUNC));
        file_ = open_file(path_, O_RDWR);
    }

    std::vector<Line> read_back(std::size_t block) {
        BackwardLineReader reader(file_.get(), block);
        std::vector<Line> lines;
        while (auto const line = reader.next()) {
            lines.push_back({std::string(*line), reader.offset()});
        }
        EXPECT_FALSE(reader.next()) << "the end stays the end";
        return lines;
    }

    std::vector<std::string> texts(std::size_t block = BackwardLineReader::K_BLOCK) {
        std::vector<std::string> result;
        for (Line const& line : read_back(block)) {
            result.push_back(line.text);
        }
        return result;
    }

    /// The reverse of what reading forwards gives.
    static std::vector<Line> expected(std::string const& contents) {
        std::istringstream stream(contents);
        std::vector<Line> lines;
        std::uint64_t offset = 0;
        for (std::string text; std::getline(stream, text); offset += text.size() + 1) {
            lines.push_back({text, offset});
        }
        std::reverse(lines.begin(), lines.end());
        return lines;
    }

    using Texts = std::vector<std::string>;
    test::TemporaryDirectory directory_;
    std::string const path_ = directory_ / "lines";
    UniqueFd file_;
};

TEST_F(BackwardLineReaderTest, TheLastLineComesFirst) {
    put("one\ntwo\nthree\n");
    EXPECT_EQ(read_back(4096), (std::vector<Line>{{"three", 8}, {"two", 4}, {"one", 0}}));
}

TEST_F(BackwardLineReaderTest, ALineWithoutItsNewlineIsALine) {
    put("one\ntwo");
    EXPECT_EQ(texts(), (Texts{"two", "one"}));
}

TEST_F(BackwardLineReaderTest, AnEmptyFileHasNoLines) {
    put("");
    EXPECT_EQ(texts(), Texts());
}

TEST_F(BackwardLineReaderTest, NewlinesAloneAreEmptyLines) {
    put("\n\n\n");
    EXPECT_EQ(texts(1), (Texts{"", "", ""}));
    EXPECT_EQ(texts(2), (Texts{"", "", ""}));
    EXPECT_EQ(texts(), (Texts{"", "", ""}));
}

TEST_F(BackwardLineReaderTest, NulBytesAndCarriageReturnsAreKept) {
    using namespace std::string_literals;
    put("a\0b\r\n\0\n\r\n"s);
    EXPECT_EQ(texts(3), (Texts{"\r", "\0"s, "a\0b\r"s}));
}

TEST_F(BackwardLineReaderTest, ALineLongerThanTheBlockIsReadWhole) {
    std::string const line(10'000, 'x');
    put("before\n" + line + "\nbehind\n");
    EXPECT_EQ(texts(16), (Texts{"behind", line, "before"}));
}

TEST_F(BackwardLineReaderTest, EveryBlockSizeGivesTheLinesOfAForwardReading) {
    std::mt19937 random(11);
    for (int round = 0; round < 60; ++round) {
        std::string contents;
        for (std::size_t length = random() % 60; contents.size() < length;) {
            contents += random() % 4 == 0 ? '\n' : static_cast<char>('a' + random() % 26);
        }
        put(contents);
        for (std::size_t block = 1; block <= contents.size() + 1; ++block) {
            ASSERT_EQ(read_back(block), expected(contents))
                << testing::PrintToString(contents) << " in blocks of " << block;
        }
    }
}

TEST_F(BackwardLineReaderTest, WhatIsAppendedMeanwhileIsNotSeen) {
    put("one\ntwo\n");
    BackwardLineReader reader(file_.get(), 2);
    ASSERT_TRUE(write_file(path_, "three\n", O_APPEND));
    EXPECT_EQ(reader.next(), "two");
    EXPECT_EQ(reader.next(), "one");
    EXPECT_FALSE(reader.next());
}

TEST_F(BackwardLineReaderTest, AFileThatIsCutShortMeanwhileEnds) {
    put("0123456789\n0123456789\n0123456789\n");
    BackwardLineReader reader(file_.get(), 16);
    EXPECT_EQ(reader.next(), "0123456789");
    ASSERT_EQ(ftruncate(file_.get(), 0), 0);
    EXPECT_FALSE(reader.next()) << "half a line is none";
    EXPECT_FALSE(reader.next());
}

TEST_F(BackwardLineReaderTest, WhatCannotBeReadHasNoLines) {
    EXPECT_FALSE(BackwardLineReader(-1).next());
    UniqueFd const directory = open_file(directory_.path(), O_RDONLY | O_DIRECTORY);
    EXPECT_FALSE(BackwardLineReader(directory.get()).next());
}

} // namespace
} // namespace tessaron
