#include "proto/FieldPrototype.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace proto {

namespace {

using Buffer = std::vector<unsigned char>;

tessaron::CustomSpan<unsigned char> span_of(Buffer& buffer) {
    return {buffer.data(), buffer.size()};
}

using Text = FieldPrototype<TOPIC_FIELD, unsigned char*, 0, FieldFlags::InLen, 8>;
using Number = FieldPrototype<NUMBER_FIELD, unsigned short, 0, FieldFlags::InCrc>;
using Swapped = FieldPrototype<NUMBER_FIELD, unsigned int, 0, FieldFlags::ByteSwapped>;

constexpr unsigned char K_MAGIC[] = {1, 2, 3};
using Magic = FieldPrototype<ID_FIELD, unsigned char const*, 0, FieldFlags::None, 3, 3, K_MAGIC>;

TEST(FieldPrototype, ASizeAboveTheLargestIsRefusedAndChangesNothing) {
    Text field;
    EXPECT_TRUE(field.set_size<unsigned char*>(8));
    EXPECT_FALSE(field.set_size<unsigned char*>(9));
    EXPECT_EQ(field.size(), 8U);
}

TEST(FieldPrototype, AnUnknownSizeLeavesTheSizeOrMakesItTheFixedOne) {
    Text text;
    EXPECT_TRUE(text.set_size<unsigned char*>(5));
    EXPECT_TRUE(text.set_size<unsigned char*>(K_UNKNOWN_SIZE));
    EXPECT_EQ(text.size(), 5U);
    Number number;
    EXPECT_TRUE(number.set_size<unsigned short>(1));
    EXPECT_TRUE(number.set_size<unsigned short>(K_UNKNOWN_SIZE));
    EXPECT_EQ(number.size(), 2U);
}

TEST(FieldPrototype, TheEmptyPayloadHasNoSizeToTakeOver) {
    Text field;
    EXPECT_TRUE(field.set_size<unsigned char*>(5));
    EXPECT_TRUE(field.set_size<EmptyDataType>(9));
    EXPECT_EQ(field.size(), 5U);
}

TEST(FieldPrototype, AnUnknownSizeCountsAsTheLargest) {
    Text field;
    EXPECT_FALSE(field.is_size_known());
    EXPECT_EQ(field.get_size(), 8U);
}

TEST(FieldPrototype, SetCopiesToItsOffset) {
    Buffer buffer(4, 0xEE);
    Number field;
    field.attach(span_of(buffer));
    field.set_offset(1);
    unsigned short const value = 0x1234;
    field.set(&value);
    EXPECT_EQ(buffer, (Buffer{0xEE, 0x34, 0x12, 0xEE}));
    EXPECT_EQ(field.begin(), buffer.data() + 1);
    EXPECT_EQ(field.get_ptr(), buffer.data() + 1);
    EXPECT_EQ(field.get_copy(), 0x1234);
}

TEST(FieldPrototype, SetReversesAByteSwappedField) {
    Buffer buffer(4);
    Swapped field;
    field.attach(span_of(buffer));
    unsigned int const value = 0x01020304;
    field.set(&value);
    EXPECT_EQ(buffer, (Buffer{1, 2, 3, 4}));
}

TEST(FieldPrototype, SetWritesNothingWithoutRoom) {
    Buffer buffer(4, 0xEE);
    Swapped field;
    field.attach({buffer.data(), 3});
    unsigned int const value = 0;
    field.set(&value);
    EXPECT_FALSE(field.fits());
    EXPECT_EQ(buffer, Buffer(4, 0xEE));
}

TEST(FieldPrototype, AByteSwappedFieldIsReceivedIntoMemorysOrderInPieces) {
    Buffer buffer(4);
    Swapped field;
    field.attach(span_of(buffer));
    Buffer wire{1, 2, 3, 4};
    EXPECT_EQ(field.take(span_of(wire).subspan(0, 1)).status, MatchStatus::Incomplete);
    EXPECT_EQ(field.take(span_of(wire).subspan(1, 3)).status, MatchStatus::Match);
    EXPECT_EQ(field.value(), 0x01020304U);
}

TEST(FieldPrototype, TakesNoMoreThanItLacks) {
    Buffer buffer(8);
    Number field;
    field.attach(span_of(buffer));
    Buffer wire{1, 2, 3, 4};
    auto const taken = field.take(span_of(wire));
    EXPECT_EQ(taken.status, MatchStatus::Match);
    EXPECT_EQ(taken.count, 2U);
    EXPECT_EQ(field.read(), 2U);
}

TEST(FieldPrototype, AConstantThatDiffersUsesUpOneByte) {
    Buffer buffer(3);
    Magic field;
    field.attach(span_of(buffer));
    Buffer wire{1, 9, 9};
    auto const taken = field.take(span_of(wire));
    EXPECT_EQ(taken.status, MatchStatus::Mismatch);
    EXPECT_EQ(taken.count, 1U);
    EXPECT_EQ(field.read(), 0U);
}

TEST(FieldPrototype, ApplyConstWritesTheConstantOrZeroes) {
    Buffer buffer(4, 0xEE);
    Magic magic;
    magic.attach(span_of(buffer));
    magic.apply_const();
    EXPECT_EQ(buffer, (Buffer{1, 2, 3, 0xEE}));
    Number number;
    number.attach(span_of(buffer));
    number.apply_const();
    EXPECT_EQ(buffer, (Buffer{0, 0, 3, 0xEE}));
}

TEST(FieldPrototype, TheCopyOfBytesIsWhatWasRead) {
    Buffer buffer(8);
    Text field;
    field.attach(span_of(buffer));
    Buffer wire{5, 6, 7};
    field.take(span_of(wire));
    EXPECT_EQ(field.get_copy(), wire);
}

TEST(FieldPrototype, ResetForgetsWhatWasReadAndTheSize) {
    Buffer buffer(8);
    Text field;
    field.attach(span_of(buffer));
    EXPECT_TRUE(field.set_size<unsigned char*>(3));
    field.set_offset(2);
    field.set_read(3);
    field.scratch()[63] = 1;
    field.reset();
    EXPECT_EQ(field.read(), 0U);
    EXPECT_EQ(field.get_offset(), 0U);
    EXPECT_FALSE(field.is_size_known());
    EXPECT_EQ(field.scratch()[63], 0);
}

} // namespace

} // namespace proto
