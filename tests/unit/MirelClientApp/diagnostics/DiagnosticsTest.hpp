#pragma once

#include "MirelClientApp/diagnostics/DiagnosticsClient.hpp"
#include "proto/bus/discovery_records.hpp"
#include "tests/support/bus_answers.hpp"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mirelclient::test {

using tessaron::bus::LocalClient;
using tessaron::test::Collected;
using tessaron::test::HubNode;
using tessaron::test::K_LONG;
using tessaron::test::LoopbackBus;
using tessaron::test::MessageType;
using tessaron::test::RawNode;
using tessaron::test::wait_until;

inline constexpr char K_MAP_TOPIC[] = "bus.discover_network";

/// A package's application: a node of that name, with the services that every application has.
struct Application {
    Application(LoopbackBus& bus, std::uint32_t address, std::string const& name)
        : node(bus, address, name), control(connect("control", 11)),
          config(connect("config", 2000)), logger(connect("logger", 1000)) {
        node.join();
    }
    std::shared_ptr<LocalClient> connect(std::string const& name, std::uint32_t offset) {
        return node.hub.connect(node.hub.address() + offset,
                                proto::bus::make_identity(name, "application", 1));
    }

    HubNode node;
    std::shared_ptr<LocalClient> control;
    std::shared_ptr<LocalClient> config;
    std::shared_ptr<LocalClient> logger;
};

/// The daemon's node, and a client that starts when the test says so. What is found are nodes that
/// others know of: the daemon's own is nobody who answers it.
class DiagnosticsTest : public testing::Test {
protected:
    DiagnosticsTest() { own.join(); }

    DiagnosticsClient& start() { return diagnostics.emplace(own.hub, 3200); }
    /// The same, once it has seen these.
    DiagnosticsClient& start_and_find(std::vector<std::string> const& names) {
        start();
        for (std::string const& name : names) {
            wait_until_discovered(name);
        }
        return *diagnostics;
    }
    void wait_until_discovered(std::string const& name) {
        wait_until([&] { return diagnostics->is_discovered(name); }, name + " is discovered");
    }
    /// What the application says of its log, from which it can be told apart.
    std::string log_path_of(std::string const& package) {
        auto const info = diagnostics->with_package(
            package, [](tessaron::AppControlClient& client) { return client.log_info(K_LONG); });
        return info ? info->path : "nobody";
    }
    /// Requests on that topic which have left this machine, as this node has heard them.
    static std::size_t requests(RawNode const& heard_by, std::string const& topic) {
        auto const all = heard_by.heard(MessageType::REQUEST);
        return static_cast<std::size_t>(
            std::count_if(all.begin(), all.end(), [&](auto const& frame) {
                return frame.topic_id == tessaron::test::topic_hash(topic.c_str());
            }));
    }
    LoopbackBus bus;
    HubNode own{bus, 200, "daemon"};
    std::optional<DiagnosticsClient> diagnostics;
};

/// What the log service of an application says.
inline tessaron::LogInfoReply log_at(std::string const& path) {
    return {true, "", path, 1, 2, tessaron::LogLevel::INFO, 3};
}

} // namespace mirelclient::test
