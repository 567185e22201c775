#include "proto/DataFieldPrototype.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace proto {

namespace {

using Data =
    DataFieldPrototype<std::tuple<PacketInfo<1, unsigned char*>, PacketInfo<2, EmptyDataType>>, 0,
                       FieldFlags::InLen, 16>;

TEST(DataFieldPrototype, AnIdWithoutARowIsRefusedAndChangesNothing) {
    Data field;
    EXPECT_FALSE(field.set_id(3));
    EXPECT_EQ(field.id(), -1);
    EXPECT_TRUE(field.set_id(2));
    EXPECT_FALSE(field.set_id(3));
    EXPECT_EQ(field.id(), 2);
}

TEST(DataFieldPrototype, TheSizeIsThatOfTheActivePacket) {
    Data field;
    EXPECT_EQ(field.get_size(), K_UNKNOWN_SIZE);
    EXPECT_TRUE(field.set_id(1));
    EXPECT_EQ(field.get_size(), 0U);
    field.assign_size(9);
    EXPECT_EQ(field.get_size(), 9U);
    EXPECT_EQ(field.packet_size(2), 0U);
    EXPECT_EQ(field.packet_size(3), K_UNKNOWN_SIZE);
    EXPECT_TRUE(field.set_id(2));
    EXPECT_EQ(field.get_size(), 0U);
}

TEST(DataFieldPrototype, TheSizeIsNotCutToTheLargest) {
    Data field;
    EXPECT_TRUE(field.set_id(1));
    field.assign_size(17);
    EXPECT_EQ(field.get_size(), 17U);
    EXPECT_FALSE(field.fits());
}

TEST(DataFieldPrototype, ResetSelectsNothing) {
    Data field;
    EXPECT_TRUE(field.set_id(1));
    field.assign_size(9);
    field.reset();
    EXPECT_EQ(field.id(), -1);
    EXPECT_EQ(field.size(), 0U);
}

TEST(DataFieldPrototype, TheCopyIsThatOfTheActivePacket) {
    std::vector<unsigned char> buffer{1, 2, 3};
    Data field;
    field.attach({buffer.data(), buffer.size()});
    EXPECT_TRUE(std::holds_alternative<std::monostate>(field.get_copy()));
    EXPECT_TRUE(field.set_id(2));
    EXPECT_TRUE(std::holds_alternative<EmptyDataType>(field.get_copy()));
    EXPECT_TRUE(field.set_id(1));
    EXPECT_EQ(field.get_copy(), DataCopy(std::vector<unsigned char>()));
    field.assign_size(3);
    field.set_read(3);
    EXPECT_EQ(field.get_copy(), DataCopy(buffer));
}

} // namespace

} // namespace proto
