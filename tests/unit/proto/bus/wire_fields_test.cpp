#include "proto/bus/wire_fields.hpp"

#include <gtest/gtest.h>
#include <string>

namespace proto::bus::detail {
namespace {

TEST(WireFields, NumbersAreLittleEndian) {
    Bytes out;
    encode_u8(out, 0x01);
    encode_u16(out, 0x0203);
    encode_u32(out, 0x04050607);
    EXPECT_EQ(out, (Bytes{1, 3, 2, 7, 6, 5, 4}));

    std::size_t cursor = 0;
    std::uint8_t u8 = 0;
    std::uint16_t u16 = 0;
    std::uint32_t u32 = 0;
    EXPECT_TRUE(decode_u8(out.data(), out.size(), cursor, u8));
    EXPECT_TRUE(decode_u16(out.data(), out.size(), cursor, u16));
    EXPECT_TRUE(decode_u32(out.data(), out.size(), cursor, u32));
    EXPECT_EQ(u8, 0x01);
    EXPECT_EQ(u16, 0x0203);
    EXPECT_EQ(u32, 0x04050607U);
    EXPECT_EQ(cursor, out.size());
}

TEST(WireFields, ReadingPastTheEndChangesNothing) {
    Bytes const three{1, 2, 3};
    std::size_t cursor = 0;
    std::uint32_t u32 = 99;
    EXPECT_FALSE(decode_u32(three.data(), three.size(), cursor, u32));
    EXPECT_EQ(cursor, 0U);
    EXPECT_EQ(u32, 99U);

    cursor = 2;
    std::uint16_t u16 = 99;
    EXPECT_FALSE(decode_u16(three.data(), three.size(), cursor, u16));
    EXPECT_EQ(cursor, 2U);
    EXPECT_EQ(u16, 99);

    cursor = 4;
    std::uint8_t u8 = 99;
    EXPECT_FALSE(decode_u8(three.data(), three.size(), cursor, u8));
    EXPECT_EQ(u8, 99);
}

TEST(WireFields, ATextIsItsLengthAndItsBytes) {
    Bytes out;
    encode_string(out, std::string_view("a\0b", 3));
    EXPECT_EQ(out, (Bytes{3, 0, 'a', 0, 'b'}));
}

TEST(WireFields, ATextThatIsCutShortIsNotRead) {
    Bytes const cut{3, 0, 'a', 'b'};
    std::size_t cursor = 0;
    std::string text = "before";
    EXPECT_FALSE(decode_string(cut.data(), cut.size(), cursor, text));
    EXPECT_EQ(cursor, 0U);
    EXPECT_EQ(text, "before");
}

TEST(WireFields, OfATextThatIsTooLongTheBeginningIsWritten) {
    Bytes out;
    encode_string(out, std::string(65536, 'x'));
    encode_u8(out, 7);
    ASSERT_EQ(out.size(), 2U + 65535 + 1);

    std::size_t cursor = 0;
    std::string text;
    std::uint8_t next = 0;
    EXPECT_TRUE(decode_string(out.data(), out.size(), cursor, text));
    EXPECT_TRUE(decode_u8(out.data(), out.size(), cursor, next));
    EXPECT_EQ(text, std::string(65535, 'x'));
    EXPECT_EQ(next, 7);
}

TEST(WireFields, AListThatIsCutShortKeepsItsWholeEntries) {
    Bytes const two_of_five{5, 0, 1, 0, 2, 0, 3};
    FieldReader in{two_of_five.data(), two_of_five.size()};
    std::vector<std::uint16_t> list;
    EXPECT_FALSE(read_field(in, list));
    EXPECT_EQ(list, (std::vector<std::uint16_t>{1, 2}));
}

TEST(WireFields, ACountWithoutEntriesTakesNoMemory) {
    Bytes const claim{0xff, 0xff};
    FieldReader in{claim.data(), claim.size()};
    std::vector<std::string> list;
    EXPECT_FALSE(read_field(in, list));
    EXPECT_EQ(list.capacity(), 0U);
}

TEST(WireFields, OfAListThatIsTooLongTheFirst65535AreWritten) {
    std::vector<std::uint8_t> bytes(65537, 5);
    bytes[65535] = 6;
    Bytes out;
    write_field(out, bytes);
    encode_u8(out, 7);
    FieldReader in{out.data(), out.size()};
    std::vector<std::uint8_t> read;
    std::uint8_t next = 0;
    EXPECT_TRUE(read_field(in, read));
    EXPECT_TRUE(read_field(in, next));
    EXPECT_EQ(read, std::vector<std::uint8_t>(65535, 5));
    EXPECT_EQ(next, 7);
}

TEST(WireFields, AFlagIsSetUnlessItIsZeroAndAKindIsARequestOnlyIfItIsOne) {
    for (std::uint16_t const value : std::vector<std::uint16_t>{0, 1, 2, 256, 65535}) {
        Bytes out;
        encode_u16(out, value);
        FieldReader in{out.data(), out.size()};
        bool flag = value == 0;
        EXPECT_TRUE(read_field(in, flag));
        EXPECT_EQ(flag, value != 0) << value;
        in.cursor = 0;
        TopicKind kind{};
        EXPECT_TRUE(read_field(in, kind));
        EXPECT_EQ(kind == TopicKind::REQUEST, value == 1) << value;
    }
}

} // namespace
} // namespace proto::bus::detail
