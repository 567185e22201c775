#include "package/service_client.hpp"

#include "bus/address_derivation.hpp"
#include "tests/support/bus_nodes.hpp"

#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct ServiceClientTest : testing::Test {
    ServiceClientTest() { node.join(); }

    std::shared_ptr<bus::LocalClient> connect(std::string const& label,
                                              std::uint32_t shared_address = 200) {
        return connect_service(node.hub, {label, "daemon", shared_address, 1000});
    }

    test::LoopbackBus bus;
    test::HubNode node{bus, 200};
};

TEST_F(ServiceClientTest, IsWhereItWouldLikeToBe) {
    EXPECT_EQ(connect("pkgmgr")->address(), 1200U);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST_F(ServiceClientTest, IsCalledAsItsServiceInItsProgram) {
    auto const identity = connect("pkgmgr")->identity();
    auto const expected = proto::bus::make_identity("pkgmgr", "daemon", 1, "", "");
    EXPECT_EQ(std::memcmp(&identity, &expected, sizeof identity), 0);
}

TEST_F(ServiceClientTest, GivesWayToTheAddressThatItsApplicationAndLabelDecide) {
    auto const taken = node.hub.connect(1200, proto::bus::make_identity("other", "daemon", 1));
    auto const hash = std::hash<std::string>()("daemon.pkgmgr");
    EXPECT_EQ(connect("pkgmgr")->address(), bus::derive_alternate_address(1, hash, "pkgmgr"));
    EXPECT_THAT(node.warnings.all(),
                ElementsAre(HasSubstr("local-client address 1200 already in use")));
}

TEST_F(ServiceClientTest, HasAnAddressThatFitsIntoAMessage) {
    EXPECT_EQ(connect("pkgmgr", 64533)->address(), 65533U);
    EXPECT_EQ(connect("pkgmgr", 64534)->address(), 1U);
    EXPECT_EQ(connect("pkgmgr", 0xFFFFFFFF)->address(), (0xFFFFFFFFULL + 999) % 65533 + 1);
}

} // namespace
} // namespace tessaron
