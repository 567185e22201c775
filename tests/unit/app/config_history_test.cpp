#include "app/config_history.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

TEST(ConfigHistory, ALineHasItsPartsInOrder) {
    EXPECT_EQ(format_config_change_line(1700000000, "web_port", "7080", "80"),
              "ts=1700000000 field=web_port old=7080\x1fnew=80\n");
}

TEST(ConfigHistory, ValuesMayHoldBlanksAndEqualSigns) {
    auto const change = parse_config_change_line(
        format_config_change_line(12, "log_dir", "a old=b c=d", "new= field=x"));
    ASSERT_TRUE(change);
    EXPECT_EQ(change->time, 12);
    EXPECT_EQ(change->field, "log_dir");
    EXPECT_EQ(change->old_value, "a old=b c=d");
    EXPECT_EQ(change->new_value, "new= field=x");
}

TEST(ConfigHistory, OtherLinesAreSkipped) {
    EXPECT_FALSE(parse_config_change_line(""));
    EXPECT_FALSE(parse_config_change_line("ts=1 field=a old=b new=c"));
    EXPECT_FALSE(parse_config_change_line("t=1 field=a old=b\x1fnew=c"));
    EXPECT_FALSE(parse_config_change_line("ts=1 old=b\x1fnew=c"));
    EXPECT_FALSE(parse_config_change_line("ts=1 field=a\x1fnew=c"));
}

TEST(ConfigHistory, LinesAreAppended) {
    test::TemporaryDirectory directory;
    ASSERT_TRUE(append_config_change_line(directory / "h", "one\n"));
    ASSERT_TRUE(append_config_change_line(directory / "h", "two\n"));
    EXPECT_EQ(read_file(directory / "h"), "one\ntwo\n");
}

} // namespace
} // namespace tessaron::config
