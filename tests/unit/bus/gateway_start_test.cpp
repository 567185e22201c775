#include "bus/gateway_start.hpp"

#include "tests/unit/bus/GatewayTest.hpp"

#include <sstream>

namespace tessaron {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

struct Start {
    GatewayPlan plan() {
        return {port,
                200,
                "app",
                [this](std::string const& text) { info.push_back(text); },
                [this](std::string const& text) { errors.push_back(text); },
                stream,
                quick_settings()};
    }

    LoopbackBus bus;
    LoopbackBus::Port& port = bus.add_port();
    std::vector<std::string> info;
    std::vector<std::string> errors;
    std::ostringstream stream;
    std::optional<HubGateway> gateway;
};

std::string failure(std::string const& value, std::string const& text) {
    return "bus gateway: CONSOLE_APP_GATEWAY_TCP_PORT=" + value +
           " was set but the gateway failed to start (" + text +
           ") - continuing without it; if the port is already in use, on macOS check AirPlay "
           "Receiver (System Settings > General > AirDrop & Handoff), which squats on 5000/7000 by "
           "default, then free it or pick a different port.";
}

TEST(GatewayStart, ReadsDecimalPorts) {
    EXPECT_EQ(parse_gateway_port("0"), 0);
    EXPECT_EQ(parse_gateway_port("65535"), 65535);
    for (char const* const text : {"", "abc", "0x10", "7000x", "70 00"}) {
        EXPECT_THROW(parse_gateway_port(text), std::invalid_argument) << text;
    }
    for (char const* const text : {"65536", "-1", "99999999999999999999"}) {
        EXPECT_THROW(parse_gateway_port(text), std::out_of_range) << text;
    }
}

TEST(GatewayStart, WithoutAPortThereIsNoGatewayAndNothingOnTheBus) {
    Start start;
    start_gateway(start.gateway, nullptr, start.plan());
    EXPECT_FALSE(start.gateway);
    EXPECT_THAT(start.info, ElementsAre("bus gateway: CONSOLE_APP_GATEWAY_TCP_PORT not set - no "
                                        "TCP gateway started"));
    EXPECT_THAT(start.errors, IsEmpty());
    EXPECT_EQ(start.stream.str(), "");
    EXPECT_EQ(start.bus.sent_count(), 0U);
}

TEST(GatewayStart, TellsThePortThatItListensOn) {
    Start start;
    start_gateway(start.gateway, "0", start.plan());
    ASSERT_TRUE(start.gateway);
    EXPECT_THAT(start.info, ElementsAre("bus gateway: listening on TCP port " +
                                        std::to_string(start.gateway->tcp_port())));
    EXPECT_EQ(start.gateway->local_hub().address(), 1100U);
    EXPECT_STREQ(start.gateway->local_hub().identity_snapshot().name, "app-gateway-local");
    EXPECT_STREQ(start.gateway->local_hub().identity_snapshot().binary, "app");
    EXPECT_THAT(start.errors, IsEmpty());
}

TEST(GatewayStart, ABadNumberIsToldTwiceAndNothingIsStarted) {
    Start start;
    start_gateway(start.gateway, "abc", start.plan());
    EXPECT_FALSE(start.gateway);
    EXPECT_THAT(start.errors, ElementsAre(failure("abc", "stoi")));
    EXPECT_EQ(start.stream.str(), failure("abc", "stoi") + "\n");
    EXPECT_THAT(start.info, IsEmpty());
    EXPECT_EQ(start.bus.sent_count(), 0U);
}

TEST(GatewayStart, APortThatIsBusyIsToldAndTheCallerGoesOn) {
    Start first;
    start_gateway(first.gateway, "0", first.plan());
    ASSERT_TRUE(first.gateway);
    std::string const port = std::to_string(first.gateway->tcp_port());
    Start second;
    start_gateway(second.gateway, port.c_str(), second.plan());
    EXPECT_FALSE(second.gateway);
    std::string const text =
        failure(port, "HubGateway: failed to open TCP listener on port " + port);
    EXPECT_THAT(second.errors, ElementsAre(text));
    EXPECT_EQ(second.stream.str(), text + "\n");
    EXPECT_EQ(second.bus.sent_count(), 0U);
}

} // namespace
} // namespace tessaron
