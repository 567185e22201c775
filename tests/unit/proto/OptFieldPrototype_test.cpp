#include "proto/OptFieldPrototype.hpp"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace proto {

/// A text behind a byte that says how long it is: its size is known only when that byte is there.
template <>
struct OptFieldTraits<std::string> {
    static constexpr bool K_IS_PLAIN = false;
    static constexpr unsigned long K_LEAST_SIZE = 1;

    static void write(unsigned char* target, std::string const& value) {
        *target = static_cast<unsigned char>(value.size());
        std::memcpy(target + 1, value.data(), value.size());
    }
    static unsigned long wire_size(std::string const& value) { return 1 + value.size(); }
    static unsigned long stored_size(unsigned char const* source) { return 1UL + *source; }
    static std::string read(unsigned char const* source) {
        return {reinterpret_cast<char const*>(source + 1), *source};
    }
};

namespace {

using Buffer = std::vector<unsigned char>;
using Plain = OptFieldPrototype<OPT_FIELD, 0, FieldFlags::InLen, 64, std::uint16_t, std::uint32_t,
                                std::uint8_t>;
using Texts =
    OptFieldPrototype<OPT_FIELD, 0, FieldFlags::InLen, 64, std::string, std::uint8_t, std::string>;

class OptFieldPrototypeTest : public testing::Test {
protected:
    template <typename Field>
    Buffer written(Field& field, typename Field::Options const& options) {
        field.attach({buffer_.data(), buffer_.size()});
        field.set(&options);
        return {field.begin(), field.begin() + field.get_size()};
    }

    Buffer buffer_ = Buffer(64, 0xEE);
};

TEST_F(OptFieldPrototypeTest, AfterResetTheSizeIsThatOfTheMask) {
    Plain field;
    EXPECT_EQ(field.size(), 2U);
    written(field, {1, 2, 3});
    EXPECT_NE(field.size(), 2U);
    field.reset();
    EXPECT_EQ(field.size(), 2U);
    EXPECT_EQ(field.get_size(), 2U);
}

TEST_F(OptFieldPrototypeTest, WithoutOptionsItIsTwoZeroBytes) {
    Plain field;
    EXPECT_EQ(written(field, {}), (Buffer{0, 0}));
}

TEST_F(OptFieldPrototypeTest, PresentSlotsFollowTheMaskInTheirOrderWithoutGaps) {
    Plain field;
    EXPECT_EQ(written(field, {0x0102, std::nullopt, 7}), (Buffer{5, 0, 2, 1, 7}));
    EXPECT_EQ(written(field, {std::nullopt, 0x01020304, 7}), (Buffer{6, 0, 4, 3, 2, 1, 7}));
    EXPECT_EQ(field.read_mask_from_buffer(), 6);
}

TEST_F(OptFieldPrototypeTest, SlotsAreReadFromAStoredField) {
    Buffer const stored{5, 0, 2, 1, 7};
    EXPECT_EQ(Plain::get_field_from<0>(stored.data()), 0x0102);
    EXPECT_EQ(Plain::get_field_from<1>(stored.data()), std::nullopt);
    EXPECT_EQ(Plain::get_field_from<2>(stored.data()), 7);
    EXPECT_EQ(Plain::slot_offset_of(stored.data(), Plain::read_mask_of(stored.data()), 2), 4U);
}

TEST_F(OptFieldPrototypeTest, BitsAboveTheLastSlotAddNothing) {
    Buffer stored{0xFC, 0xFF, 7};
    Plain field;
    field.attach({stored.data(), stored.size()});
    field.set_read(2);
    EXPECT_EQ(field.probe_size(), 3U);
    EXPECT_EQ(Plain::get_field_from<2>(stored.data()), 7);
}

TEST_F(OptFieldPrototypeTest, TheSizeIsNotKnownBeforeTheMask) {
    Plain field;
    field.attach({buffer_.data(), buffer_.size()});
    EXPECT_EQ(field.probe_size(), 1U);
    field.set_read(1);
    EXPECT_EQ(field.probe_size(), 2U);
}

TEST_F(OptFieldPrototypeTest, TheSizeOfAVariableSlotIsKnownWhenItsOwnBytesTellIt) {
    Buffer stored{7, 0, 3, 'a', 'b', 'c', 9, 2, 'd', 'e'};
    Texts field;
    field.attach({stored.data(), stored.size()});
    // What the parser asks after each step: never beyond the field, always further than it is.
    unsigned long read = 2;
    std::vector<unsigned long> steps;
    for (unsigned long size = 0; (field.set_read(read), size = field.probe_size()) != read;
         read = size) {
        ASSERT_GT(size, read);
        ASSERT_LE(size, stored.size());
        steps.push_back(size);
    }
    EXPECT_EQ(steps, (std::vector<unsigned long>{3, 8, 10}));
    EXPECT_EQ(Texts::get_field_from<0>(stored.data()), "abc");
    EXPECT_EQ(Texts::get_field_from<1>(stored.data()), 9);
    EXPECT_EQ(Texts::get_field_from<2>(stored.data()), "de");
    Texts writer;
    EXPECT_EQ(written(writer, {"abc", 9, "de"}), stored);
}

TEST_F(OptFieldPrototypeTest, OptionsThatHaveNoRoomAreNotWritten) {
    Plain field;
    field.attach({buffer_.data(), 6});
    Plain::Options const options{1, 2, 3};
    field.set(&options);
    EXPECT_FALSE(field.fits());
    EXPECT_EQ(buffer_, Buffer(64, 0xEE));
    Texts texts;
    texts.attach({buffer_.data(), buffer_.size()});
    Texts::Options const longer{std::string(62, 'x'), std::nullopt, std::nullopt};
    texts.set(&longer);
    EXPECT_FALSE(texts.fits());
    EXPECT_EQ(buffer_, Buffer(64, 0xEE));
}

} // namespace

} // namespace proto
