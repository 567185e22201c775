#include "mirelserver/StreamBuffer.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace mirelserver {
namespace {

class StreamBufferTest : public testing::Test {
protected:
    void take() {
        buffer_.take([this](std::string bytes) { taken_.push_back(std::move(bytes)); });
    }

    StreamBuffer::Total total_ = std::make_shared<std::atomic<std::size_t>>(0);
    StreamBuffer buffer_{total_};
    std::vector<std::string> taken_;
};

TEST_F(StreamBufferTest, KeepsTheOrderAndEndsWithNothing) {
    take();
    EXPECT_TRUE(taken_.empty());
    ASSERT_TRUE(buffer_.put("a"));
    ASSERT_TRUE(buffer_.put("b"));
    ASSERT_TRUE(buffer_.put("c"));
    buffer_.end();
    take();
    take();
    take();
    EXPECT_EQ(taken_, (std::vector<std::string>{"a", "b", "c", ""}));
    EXPECT_EQ(*total_, 0U);
}

TEST_F(StreamBufferTest, AnEndWakesTheOneThatWaits) {
    take();
    buffer_.end();
    EXPECT_EQ(taken_, std::vector<std::string>{""});
}

TEST_F(StreamBufferTest, OverItsLimitItEndsAndDropsAll) {
    std::string const piece(1'000'000, 'x');
    std::size_t const most = StreamBuffer::K_MAX_SIZE / (piece.size() + StreamBuffer::K_PIECE_COST);
    for (std::size_t i = 0; i < most; ++i) {
        ASSERT_TRUE(buffer_.put(piece));
    }
    EXPECT_FALSE(buffer_.put(piece));
    EXPECT_EQ(*total_, 0U);
    take();
    EXPECT_EQ(taken_, std::vector<std::string>{""});
}

TEST_F(StreamBufferTest, TinyPiecesReachTheLimitToo) {
    std::size_t count = 0;
    while (buffer_.put("x")) {
        ++count;
    }
    EXPECT_EQ(count, StreamBuffer::K_MAX_SIZE / (1 + StreamBuffer::K_PIECE_COST));
}

TEST_F(StreamBufferTest, AllBuffersOfATunnelShareALimit) {
    *total_ = StreamBuffer::K_MAX_TOTAL - StreamBuffer::K_PIECE_COST - 1;
    EXPECT_TRUE(buffer_.put("x"));
    EXPECT_FALSE(buffer_.put("x"));
}

} // namespace
} // namespace mirelserver
