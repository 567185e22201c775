#include "MirelClientApp/ServiceAddresses.hpp"

#include "bus/address_derivation.hpp"
#include "tests/support/bus_nodes.hpp"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace mirelclient {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct ServiceAddressesTest : testing::Test {
    ServiceAddressesTest() { node.join(); }

    ServiceAddresses claim(std::uint32_t shared_address = 200) {
        return ServiceAddresses::claim(node.hub, "daemon", shared_address);
    }

    tessaron::test::LoopbackBus bus;
    tessaron::test::HubNode node{bus, 200};
};

TEST_F(ServiceAddressesTest, AreThoseBehindTheProcessesOwn) {
    auto const [packages, registry, diagnostics, db_browser] = claim();
    EXPECT_EQ(packages, 1200U);
    EXPECT_EQ(registry, 2200U);
    EXPECT_EQ(diagnostics, 3200U);
    EXPECT_EQ(db_browser, 4200U);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST_F(ServiceAddressesTest, GiveWayToTheAddressThatApplicationAndLabelDecide) {
    auto const taken = node.hub.connect(4200, proto::bus::make_identity("other", "daemon", 1));
    auto const hash = std::hash<std::string>()("daemon.db_browser");
    EXPECT_EQ(claim().db_browser, tessaron::bus::derive_alternate_address(1, hash, "db_browser"));
    EXPECT_THAT(node.warnings.all(),
                ElementsAre(HasSubstr("local-client address 4200 already in use")));
}

TEST_F(ServiceAddressesTest, FitIntoAMessage) {
    EXPECT_EQ(claim(64533).packages, 65533U);
    EXPECT_EQ(claim(64534).packages, 1U);
    EXPECT_EQ(claim(0xFFFFFFFF).packages, (0xFFFFFFFFULL + 999) % 65533 + 1);
}

} // namespace
} // namespace mirelclient
