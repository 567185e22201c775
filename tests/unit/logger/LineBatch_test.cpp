#include "logger/LineBatch.hpp"

#include <gtest/gtest.h>
#include <string>

namespace tessaron {
namespace {

TEST(LineBatch, HoldsLinesOfPiecesWithTheirLevelsInOrder) {
    LineBatch batch;
    EXPECT_TRUE(batch.empty());
    batch.add(LogLevel::INFO, {"[", "label", "] ", "first"});
    batch.add(LogLevel::ERROR, {});
    batch.add(LogLevel::TRACE, {"third\nwith a break"});
    ASSERT_EQ(batch.size(), 3U);
    EXPECT_EQ(batch.text(0), "[label] first\n");
    EXPECT_EQ(batch.level(0), LogLevel::INFO);
    EXPECT_EQ(batch.text(1), "\n");
    EXPECT_EQ(batch.level(1), LogLevel::ERROR);
    EXPECT_EQ(batch.text(2), "third\nwith a break\n");
}

TEST(LineBatch, SwapAndClearMakeItReadyForMore) {
    LineBatch batch;
    LineBatch other;
    batch.add(LogLevel::INFO, {"x"});
    batch.swap(other);
    EXPECT_TRUE(batch.empty());
    EXPECT_EQ(other.text(0), "x\n");
    other.clear();
    other.add(LogLevel::INFO, {"y"});
    EXPECT_EQ(other.text(0), "y\n");
}

TEST(LineBatch, IsUsableAfterABurstWasCleared) {
    LineBatch batch;
    batch.add(LogLevel::INFO, {std::string(2 * LineBatch::K_KEPT_BYTES, 'x')});
    batch.clear();
    EXPECT_TRUE(batch.empty());
    batch.add(LogLevel::INFO, {"y"});
    EXPECT_EQ(batch.text(0), "y\n");
}

} // namespace
} // namespace tessaron
