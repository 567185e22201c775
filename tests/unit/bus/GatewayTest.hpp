#pragma once

#include "bus/HubGateway.hpp"
#include "tests/support/TcpPort.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::test {

inline constexpr std::uint32_t K_NODE = 205;
inline constexpr std::uint32_t K_TOOL = 300;
inline constexpr std::uint32_t K_LOCAL = 1100;

inline HubGateway::Settings quick_settings() {
    HubGateway::Settings settings;
    settings.program = "app";
    settings.sync_interval = std::chrono::milliseconds(20);
    settings.address_probe_window = std::chrono::milliseconds(2);
    settings.debug_marker_base = marker_base();
    return settings;
}

/// A gateway on a bus in memory, with a node that repeats what it is asked.
struct Bridged {
    Bridged() {
        node.hub.serve(
            "echo", [](Bytes const& request) { return request; }, "");
        node.join();
    }

    bool wait_until_reachable(std::uint32_t address) {
        return wait_until([&] { return gateway.remote_hub().has_local_route(address); },
                          "the tool's side reaches " + std::to_string(address));
    }
    bool wait_until_reachable_from_bus(std::uint32_t address) {
        return wait_until([&] { return gateway.local_hub().has_local_route(address); },
                          "the bus reaches " + std::to_string(address));
    }
    /// Also stands for "all that came before has been handled": both sides keep their order.
    bool echo(RawNode& tool, Bytes const& payload, std::uint32_t msg_id) {
        tool.send(MessageType::REQUEST, K_NODE, payload, "echo", msg_id);
        return wait_until(
            [&] {
                auto const replies = tool.heard(MessageType::RESPONSE);
                return std::any_of(replies.begin(), replies.end(), [&](auto const& reply) {
                    return reply.msg_id == msg_id && reply.data == payload;
                });
            },
            "the node's reply " + std::to_string(msg_id) + " has come");
    }

    LoopbackBus bus;
    HubNode node{bus, K_NODE};
    HubGateway gateway{bus.add_port(),
                       HubGateway::K_LOCAL_DOMAIN,
                       K_LOCAL,
                       0,
                       HubGateway::K_REMOTE_DOMAIN,
                       "app-gateway",
                       quick_settings()};
};

/// A tool that speaks frames, connected to the gateway.
struct RawTool {
    explicit RawTool(HubGateway& gateway, std::uint32_t address = K_TOOL)
        : port(gateway.tcp_port()), node(port, address) {
        node.join();
    }

    TcpPort port;
    RawNode node;
};

} // namespace tessaron::test
