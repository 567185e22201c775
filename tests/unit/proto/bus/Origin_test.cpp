#include "proto/bus/Origin.hpp"

#include <array>
#include <cstring>
#include <gtest/gtest.h>

namespace proto::bus {
namespace {

TEST(Origin, IsSixLittleEndianBytesInMemory) {
    Origin const origin(0x01020304, 0xfffe);
    std::array<std::uint8_t, 6> bytes{};
    std::memcpy(bytes.data(), &origin, sizeof origin);
    EXPECT_EQ(bytes, (std::array<std::uint8_t, 6>{4, 3, 2, 1, 0xfe, 0xff}));
}

TEST(Origin, GivesBackItsAddresses) {
    Origin const origin(0xfffefdfc, 0x8001);
    EXPECT_EQ(origin.hub_address(), 0xfffefdfcU);
    EXPECT_EQ(origin.local_address(), 0x8001);
    EXPECT_EQ(Origin(), Origin(0, 0));
    EXPECT_NE(Origin(1, 2), Origin(2, 1));
}

} // namespace
} // namespace proto::bus
