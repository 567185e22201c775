#include "tests/unit/bus/GatewayTest.hpp"

// Who a gateway is on its two sides, and the port that it takes.

namespace tessaron {
namespace {

using namespace test;
using bus::WireFrame;

std::string name_of(bus::Hub const& hub) {
    return bus::identity_field_to_string(hub.identity_snapshot().name, 50);
}

TEST(HubGatewayIdentity, MakesNamesThatKeepTheirSuffix) {
    EXPECT_EQ(with_suffix_guaranteed("app-gateway", "-local"), "app-gateway-local");
    EXPECT_EQ(with_suffix_guaranteed("", "-tcp"), "-tcp");
    EXPECT_EQ(with_suffix_guaranteed(std::string(43, 'n'), "-local"),
              std::string(43, 'n') + "-local");
    EXPECT_EQ(with_suffix_guaranteed(std::string(44, 'n'), "-local"),
              std::string(43, 'n') + "-local");
    EXPECT_EQ(with_suffix_guaranteed(std::string(200, 'n'), "-tcp"), std::string(45, 'n') + "-tcp");
    EXPECT_EQ(with_suffix_guaranteed("name", std::string(60, 's')), std::string(49, 's'));
}

TEST(HubGatewayIdentity, AnApplicationsLongNameKeepsBothHubsApart) {
    LoopbackBus bus;
    std::string const app(50, 'a');
    HubGateway gateway(bus.add_port(), 0, K_LOCAL, 0, 1, app + "-gateway", quick_settings());
    EXPECT_EQ(name_of(gateway.local_hub()), std::string(43, 'a') + "-local");
    EXPECT_EQ(name_of(gateway.remote_hub()), std::string(45, 'a') + "-tcp");
}

TEST(HubGatewayIdentity, ItsHubsHaveTheirAddressesDomainsAndProgram) {
    LoopbackBus bus;
    HubGateway gateway(bus.add_port(), 0, K_LOCAL, 0, 1, "app-gateway", quick_settings());
    EXPECT_EQ(gateway.local_hub().address(), K_LOCAL);
    EXPECT_EQ(gateway.local_hub().domain_hash(), 0U);
    EXPECT_EQ(gateway.remote_hub().address(), 50000U);
    EXPECT_EQ(gateway.remote_hub().domain_hash(), 1U);
    auto const identity = gateway.remote_hub().identity_snapshot();
    EXPECT_STREQ(identity.name, "app-gateway-tcp");
    EXPECT_STREQ(identity.binary, "app");
    EXPECT_EQ(identity.version, 1U);
    EXPECT_NE(gateway.tcp_port(), 0);
}

TEST(HubGatewayIdentity, ASecondOneOnThePortIsRefused) {
    LoopbackBus bus;
    HubGateway const first(bus.add_port(), 0, K_LOCAL, 0, 1, "first", quick_settings());
    std::uint16_t const port = first.tcp_port();
    try {
        HubGateway const second(bus.add_port(), 0, K_LOCAL + 1, port, 1, "second",
                                quick_settings());
        FAIL() << "both listen on one port";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(),
                  "HubGateway: failed to open TCP listener on port " + std::to_string(port));
    }
}

TEST(HubGatewayIdentity, TellsOfTheConflictsOfItsHubs) {
    LoopbackBus bus;
    RawNode twin(bus, K_LOCAL);
    twin.on_frame = [&twin](WireFrame const& frame) {
        if (frame.type == MessageType::DISCOVERY_REQUEST) {
            twin.announce("twin");
        }
    };
    twin.join();
    Collected<std::string> warnings;
    auto settings = quick_settings();
    settings.address_probe_window = K_CLAIM_WINDOW;
    settings.warning_sink = [&](std::string const& text) { warnings.add(text); };
    HubGateway gateway(bus.add_port(), 0, K_LOCAL, 0, 1, "app-gateway", settings);
    EXPECT_NE(gateway.local_hub().address(), K_LOCAL);
    EXPECT_THAT(warnings.all(),
                testing::Contains(testing::StartsWith("[bus] WARNING: address 1100 already in")));
}

} // namespace
} // namespace tessaron
