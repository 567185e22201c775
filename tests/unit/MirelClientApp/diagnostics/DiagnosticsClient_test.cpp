#include "tests/unit/MirelClientApp/diagnostics/DiagnosticsTest.hpp"

#include <gmock/gmock.h>

// Who is found.

namespace mirelclient::test {
namespace {

using proto::bus::HubSummary;
using proto::bus::NetworkDomain;
using tessaron::AppControlClient;

using DiagnosticsClientTest = DiagnosticsTest;

/// A node that answers who asks for a map with this one, and nothing else.
void answer_map(RawNode& raw, NetworkDomain const& map) {
    raw.on_frame = [&raw, map](tessaron::bus::WireFrame const& frame) {
        if (frame.type == MessageType::REQUEST &&
            frame.topic_id == tessaron::test::topic_hash(K_MAP_TOPIC)) {
            raw.send(MessageType::RESPONSE, 3200, encode_network_domain(map), "", frame.msg_id);
        }
    };
}

TEST_F(DiagnosticsClientTest, NobodyIsKnownUntilSomebodyHasAnsweredWithAMap) {
    RawNode raw(bus, 9);
    raw.join();
    raw.announce("silent");
    start();
    // With the second question the first round is over.
    wait_until([&] { return requests(raw, K_MAP_TOPIC) >= 2; }, "it has looked around");
    for (std::string const name : {"silent", "daemon", "weather"}) {
        EXPECT_FALSE(diagnostics->is_discovered(name)) << name;
        EXPECT_EQ(diagnostics->hub_location(name), std::nullopt) << name;
        EXPECT_FALSE(diagnostics->hub_owns_address(name, 9)) << name;
        EXPECT_EQ(log_path_of(name), "nobody") << name;
    }
    Application const weather(bus, 300, "weather");
    wait_until_discovered("weather");
    wait_until_discovered("daemon");
}

TEST_F(DiagnosticsClientTest, ARoundWithoutAnswersLeavesWhatIsKnown) {
    RawNode raw(bus, 9);
    raw.join();
    std::optional<Application> weather;
    weather.emplace(bus, 300, "weather");
    start_and_find({"weather"});
    weather.reset();
    std::size_t const before = requests(raw, K_MAP_TOPIC);
    wait_until([&] { return requests(raw, K_MAP_TOPIC) >= before + 3; }, "rounds have failed");
    EXPECT_TRUE(diagnostics->is_discovered("weather"));
    EXPECT_EQ(diagnostics->hub_location("weather"), (HubLocation{300, 0}));
    EXPECT_TRUE(diagnostics->hub_owns_address("weather", 300));
}

TEST_F(DiagnosticsClientTest, ApplicationsThatComeLaterAreFound) {
    Application const clock(bus, 400, "clock");
    start_and_find({"clock"});
    EXPECT_FALSE(diagnostics->is_discovered("weather"));
    Application const weather(bus, 300, "weather");
    wait_until_discovered("weather");
    EXPECT_EQ(diagnostics->hub_location("weather"), (HubLocation{300, 0}));
}

TEST_F(DiagnosticsClientTest, AnAddressBelongsToTheNodeThatHasItOrAModuleThere) {
    Application const weather(bus, 300, "weather");
    Application const clock(bus, 400, "clock");
    start_and_find({"weather", "clock"});
    for (std::uint32_t const address : {300U, 311U, 1300U, 2300U}) {
        wait_until([&] { return diagnostics->hub_owns_address("weather", address); },
                   "the module is known");
        EXPECT_FALSE(diagnostics->hub_owns_address("clock", address)) << address;
    }
    EXPECT_FALSE(diagnostics->hub_owns_address("weather", 3200));
    EXPECT_FALSE(diagnostics->hub_owns_address("nobody", 300));
}

TEST_F(DiagnosticsClientTest, WhatABusIsCalledFromBehindAGatewayIsNotItsAddress) {
    RawNode gateway(bus, 9);
    answer_map(gateway, {4711, {HubSummary{9, "gateway", 5, {}}}, {}});
    gateway.join();
    start_and_find({"gateway"});
    EXPECT_EQ(diagnostics->hub_location("gateway"), (HubLocation{9, 0}));
}

TEST_F(DiagnosticsClientTest, ANodeThatIsMemberOfADomainKnowsItsBusByIt) {
    HubNode member(bus, 250, "member", tessaron::test::hub_settings(77));
    HubNode other(bus, 260, "other", tessaron::test::hub_settings(77));
    member.join();
    other.join();
    DiagnosticsClient of_member(member.hub, 3250);
    wait_until([&] { return of_member.is_discovered("other"); }, "the other is found");
    EXPECT_EQ(of_member.hub_location("other"), (HubLocation{260, 77}));
}

TEST_F(DiagnosticsClientTest, ApplicationsBehindGatewaysAreFoundInTheirDomains) {
    NetworkDomain const far{20, {HubSummary{300, "weather", 6, {}}}, {}};
    NetworkDomain const farther{30, {HubSummary{310, "weather", 7, {}}}, {}};
    RawNode gateway(bus, 9);
    answer_map(gateway, {0, {HubSummary{9, "gateway", 5, {}}}, {far, farther}});
    gateway.join();
    start_and_find({"weather"});
    EXPECT_EQ(diagnostics->hub_location("weather"), (HubLocation{300, 20}));
}

TEST_F(DiagnosticsClientTest, AMapThatCannotBeReadIsPassedOver) {
    RawNode raw(bus, 9);
    raw.on_frame = [&raw](tessaron::bus::WireFrame const& frame) {
        if (frame.type == MessageType::REQUEST) {
            raw.send(MessageType::RESPONSE, 3200, {1, 2, 3}, "", frame.msg_id);
        }
    };
    raw.join();
    Application const weather(bus, 300, "weather");
    start_and_find({"weather"});
}

TEST_F(DiagnosticsClientTest, ItIsANodeOfItsOwn) {
    start();
    std::vector<std::string> names;
    auto const device = own.hub.discovered_devices().at(200);
    for (auto const& module : device.hosted_modules) {
        names.push_back(module.name + " " + std::to_string(module.address));
    }
    EXPECT_THAT(names, testing::ElementsAre("diagnostics 3200"));
}

} // namespace
} // namespace mirelclient::test
