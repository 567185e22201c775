#include "MirelClientApp/tunnel/ConsoleFrameParser.hpp"

#include "libraries/tunnel/tunnel_frame.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace mirelclient {
namespace {

using namespace tessaron::tunnel;

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

std::string sub_frame(std::uint8_t kind, std::string const& data) {
    auto const header = encode_console_header(kind, static_cast<std::uint32_t>(data.size()));
    return std::string(header.begin(), header.end()) + data;
}

std::string header_of(std::uint8_t kind, std::uint32_t length) {
    auto const header = encode_console_header(kind, length);
    return {header.begin(), header.end()};
}

struct ConsoleFrameParserTest : testing::Test {
    void feed(std::string_view bytes) {
        parser.feed(bytes, [this](std::uint8_t kind, std::string_view data) {
            handled.emplace_back(kind, data);
        });
    }

    ConsoleFrameParser parser;
    std::vector<std::pair<int, std::string>> handled;
};

TEST_F(ConsoleFrameParserTest, SubFramesThatAreJoinedComeOneByOne) {
    feed(sub_frame(1, "ls\n") + sub_frame(2, "abcd") + sub_frame(1, "x"));
    EXPECT_THAT(handled, ElementsAre(Pair(1, "ls\n"), Pair(2, "abcd"), Pair(1, "x")));
    EXPECT_EQ(parser.held(), 0U);
}

TEST_F(ConsoleFrameParserTest, ASubFrameThatIsSplitAnywhereComesWhole) {
    std::string const bytes = sub_frame(1, "hello") + sub_frame(2, "wxyz");
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        handled.clear();
        feed(bytes.substr(0, cut));
        feed(bytes.substr(cut));
        EXPECT_THAT(handled, ElementsAre(Pair(1, "hello"), Pair(2, "wxyz"))) << cut;
    }
}

TEST_F(ConsoleFrameParserTest, SingleBytesAreEnough) {
    for (char const byte : sub_frame(1, "hello") + sub_frame(1, "")) {
        feed(std::string_view(&byte, 1));
    }
    EXPECT_THAT(handled, ElementsAre(Pair(1, "hello"), Pair(1, "")));
}

TEST_F(ConsoleFrameParserTest, AnUnfinishedSubFrameIsHeldBack) {
    feed(sub_frame(1, "hello").substr(0, 9));
    EXPECT_THAT(handled, IsEmpty());
    EXPECT_EQ(parser.held(), 9U);
}

TEST_F(ConsoleFrameParserTest, ALargestHeldSubFrameComesWhole) {
    std::string const data(K_MAX_FRAME_PAYLOAD, 'x');
    std::string const bytes = sub_frame(1, data);
    feed(bytes.substr(0, bytes.size() - 1));
    EXPECT_LT(parser.held(), ConsoleFrameParser::K_MAX_HELD);
    feed(bytes.substr(bytes.size() - 1));
    EXPECT_THAT(handled, ElementsAre(Pair(1, data)));
}

TEST_F(ConsoleFrameParserTest, LargerTerminalBytesComeInPiecesAndNothingIsHeld) {
    feed(header_of(1, K_MAX_FRAME_PAYLOAD + 1));
    std::string const piece(1 << 20, 'a');
    for (int i = 0; i < 4; ++i) {
        feed(piece);
        EXPECT_EQ(parser.held(), 0U);
    }
    feed("b" + sub_frame(2, "wxyz"));
    ASSERT_THAT(handled, SizeIs(6));
    EXPECT_THAT(handled[3], Pair(1, piece));
    EXPECT_THAT(handled[4], Pair(1, "b"));
    EXPECT_THAT(handled[5], Pair(2, "wxyz"));
}

TEST_F(ConsoleFrameParserTest, LargerSubFramesOfOtherKindsAreSkipped) {
    feed(header_of(7, K_MAX_FRAME_PAYLOAD + 3) + std::string(K_MAX_FRAME_PAYLOAD, 'x'));
    feed("yyy" + sub_frame(1, "after"));
    EXPECT_THAT(handled, ElementsAre(Pair(1, "after")));
}

TEST_F(ConsoleFrameParserTest, TheLargestDeclaredLengthHoldsNothing) {
    feed(header_of(1, 0xffffffff) + "abc");
    EXPECT_THAT(handled, ElementsAre(Pair(1, "abc")));
    EXPECT_EQ(parser.held(), 0U);
}

} // namespace
} // namespace mirelclient
