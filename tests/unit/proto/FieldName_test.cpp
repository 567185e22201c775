#include "proto/FieldName.hpp"

#include "proto/FieldFlags.hpp"

#include <gtest/gtest.h>
#include <string>

namespace proto {

namespace {

TEST(FieldName, NumbersHaveTheirTexts) {
    constexpr char const* K_TEXTS[] = {
        "ID_FIELD",       "ID_2_FIELD",    "TYPE_FIELD", "UNKNOWN",      "REQ_TYPE_FIELD",
        "ANS_TYPE_FIELD", "LEN_FIELD",     "ALEN_FIELD", "SOURCE_FIELD", "DEST_FIELD",
        "VERSION_FIELD",  "NUMBER_FIELD",  "DATA_FIELD", "CRC_FIELD",    "SESSION_FIELD",
        "DUMP_FIELD",     "HEADER_FIELD",  "BIN_FIELD",  "TIME_FIELD",   "HEIGHT_FIELD",
        "WIDTH_FIELD",    "STATUS_FIELD",  "TTL_FIELD",  "FLAGS_FIELD",  "TOPIC_FIELD",
        "SOURCE_2_FIELD", "CHANNEL_FIELD", "UNKNOWN",    "UNKNOWN"};
    int number = 0;
    for (char const* const text : K_TEXTS) {
        EXPECT_STREQ(to_string(static_cast<FieldName>(number)), text) << number;
        ++number;
    }
}

TEST(FieldName, JsonAndOptionsHaveNoText) {
    EXPECT_STREQ(to_string(JSON_FIELD), "UNKNOWN");
    EXPECT_STREQ(to_string(OPT_FIELD), "UNKNOWN");
}

TEST(FieldFlags, AreASet) {
    FieldFlags const both = FieldFlags::InLen | FieldFlags::ByteSwapped;
    EXPECT_TRUE(has_flag<FieldFlags>(both, FieldFlags::InLen));
    EXPECT_TRUE(has_flag<FieldFlags>(both, FieldFlags::ByteSwapped));
    EXPECT_FALSE(has_flag<FieldFlags>(both, FieldFlags::InCrc));
    EXPECT_EQ(both & FieldFlags::InLen, FieldFlags::InLen);
}

} // namespace

} // namespace proto
