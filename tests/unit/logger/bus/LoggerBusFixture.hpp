#pragma once

#include "logger/bus/LoggerBusAdapter.hpp"
#include "tests/support/bus_nodes.hpp"
#include "tests/unit/logger/LoggerFixture.hpp"

#include <memory>
#include <string>
#include <vector>

namespace tessaron::test {

/// A log whose adapter is a client of one node, and a second node on the same bus.
class LoggerBusFixture : public LoggerFixture {
protected:
    static constexpr std::uint32_t K_LISTENER = 1200;

    LoggerBusFixture() {
        node.join();
        other.join();
        adapter = std::make_unique<LoggerBusAdapter>(logger);
        adapter->listen_on_bus(node.hub, proto::bus::make_identity("logger", "app-of-test", 1),
                               K_LISTENER);
    }

    /// What the log's file holds, without labels and times.
    std::vector<std::string> messages() {
        logger.flush();
        return messages_of(path);
    }

    /// Asks the listener from the other node.
    template <typename Reply, typename Request>
    std::optional<Reply> ask(std::string const& topic, Request const& request) {
        return asker->call<Reply>(K_LISTENER, topic, request, K_LONG);
    }

    LoopbackBus bus;
    HubNode node{bus, 200, "node"};
    HubNode other{bus, 300, "other"};
    std::shared_ptr<bus::LocalClient> asker =
        other.hub.connect(4000, proto::bus::make_identity("asker", "test", 1));
    std::unique_ptr<LoggerBusAdapter> adapter;
};

} // namespace tessaron::test
