#include "bus/address_derivation.hpp"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace tessaron::bus {
namespace {

TEST(AddressDerivation, StaysWithinOneAnd65533) {
    for (unsigned attempt = 0; attempt < 8; ++attempt) {
        for (std::uint64_t hardware_id = 0; hardware_id < 20'000; ++hardware_id) {
            auto const address = derive_alternate_address(attempt, hardware_id, "label");
            ASSERT_GE(address, 1U);
            ASSERT_LE(address, 65533U);
        }
    }
}

TEST(AddressDerivation, TakesExtremeArguments) {
    for (std::uint64_t const hardware_id : {std::uint64_t{0}, ~std::uint64_t{0}}) {
        for (unsigned const attempt : {0U, ~0U}) {
            auto const address = derive_alternate_address(attempt, hardware_id, "");
            EXPECT_GE(address, 1U);
            EXPECT_LE(address, 65533U);
        }
    }
}

TEST(AddressDerivation, IsTheSameForTheSameLabelAndHash) {
    for (unsigned attempt = 1; attempt < 8; ++attempt) {
        EXPECT_EQ(derive_alternate_address(attempt, 99, "logger"),
                  derive_alternate_address(attempt, 99, std::string("log") + "ger"));
    }
}

TEST(AddressDerivation, DiffersByEachOfItsArguments) {
    std::set<std::uint32_t> const addresses{
        derive_alternate_address(1, 1, "a"), derive_alternate_address(2, 1, "a"),
        derive_alternate_address(1, 2, "a"), derive_alternate_address(1, 1, "b")};
    EXPECT_EQ(addresses.size(), 4U);
}

TEST(AddressDerivation, SpreadsTheNodesThatCompeteForOneAddress) {
    std::set<std::uint32_t> addresses;
    for (std::uint64_t hardware_id = 0; hardware_id < 1'000; ++hardware_id) {
        addresses.insert(derive_alternate_address(1, hardware_id, "node"));
    }
    EXPECT_GT(addresses.size(), 900U);
}

TEST(ServiceAddress, LiesBehindItsNodesAndBeginsAnewBeyondTheLast) {
    EXPECT_EQ(derive_service_address(200, 1000), 1200U);
    EXPECT_EQ(derive_service_address(64'533, 1000), 65'533U);
    EXPECT_EQ(derive_service_address(64'534, 1000), 1U);
    EXPECT_EQ(derive_service_address(0, 11), 11U);
    EXPECT_EQ(derive_service_address(0xFFFFFFFF, 2000), (0xFFFFFFFFULL + 2000 - 1) % 65'533 + 1);
}

} // namespace
} // namespace tessaron::bus
