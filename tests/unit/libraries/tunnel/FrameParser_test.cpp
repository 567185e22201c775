#include "libraries/tunnel/FrameParser.hpp"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::tunnel {
namespace {

/// Collects whole frames, and refuses or ends with what it was told to.
struct Collector {
    bool on_header(FrameHeader const& header) {
        frames.push_back({header, {}});
        return header.type != refused_type;
    }
    void on_payload(std::string_view piece) { frames.back().second += piece; }
    bool on_frame_end() { return ++complete != last; }

    std::vector<std::pair<FrameHeader, std::string>> frames;
    int complete = 0;
    int refused_type = -1;
    int last = -1;
};

std::string sample() {
    return encode_frame(FRAME_OPEN, 1, "http") + encode_frame(FRAME_CLOSE, 2) +
           encode_frame(FRAME_DATA, 0xfffefdfc, "payload");
}

void expect_sample(Collector const& collector) {
    ASSERT_EQ(collector.frames.size(), 3U);
    EXPECT_EQ(collector.complete, 3);
    EXPECT_EQ(collector.frames[0], (std::pair{FrameHeader{FRAME_OPEN, 1, 4}, std::string("http")}));
    EXPECT_EQ(collector.frames[1], (std::pair{FrameHeader{FRAME_CLOSE, 2, 0}, std::string()}));
    EXPECT_EQ(collector.frames[2],
              (std::pair{FrameHeader{FRAME_DATA, 0xfffefdfc, 7}, std::string("payload")}));
}

TEST(FrameParser, FindsAllFramesOfOnePiece) {
    Collector collector;
    EXPECT_TRUE(FrameParser().feed(sample(), collector));
    expect_sample(collector);
}

TEST(FrameParser, FindsTheSameFramesInPiecesOfAnySize) {
    for (std::size_t size = 1; size < sample().size(); ++size) {
        Collector collector;
        FrameParser parser;
        std::string const bytes = sample();
        for (std::size_t at = 0; at < bytes.size(); at += size) {
            EXPECT_TRUE(parser.feed(std::string_view(bytes).substr(at, size), collector));
        }
        expect_sample(collector);
    }
}

TEST(FrameParser, AnEmptyFrameIsCompleteWithItsHeader) {
    Collector collector;
    EXPECT_TRUE(FrameParser().feed(encode_frame(FRAME_CLOSE, 1), collector));
    EXPECT_EQ(collector.complete, 1);
}

TEST(FrameParser, ARefusedHeaderIsTheEnd) {
    Collector collector;
    collector.refused_type = FRAME_CLOSE;
    EXPECT_FALSE(FrameParser().feed(sample(), collector));
    EXPECT_EQ(collector.frames.size(), 2U);
    EXPECT_EQ(collector.complete, 1);
}

TEST(FrameParser, AHandlerThatHasEnoughGetsNoMore) {
    Collector collector;
    collector.last = 2;
    EXPECT_FALSE(FrameParser().feed(sample(), collector));
    EXPECT_EQ(collector.frames.size(), 2U);
}

} // namespace
} // namespace tessaron::tunnel
