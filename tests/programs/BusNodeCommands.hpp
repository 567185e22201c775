#pragma once

#include "bus/LocalClient.hpp"
#include "tests/support/MulticastNode.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace bus_node {

/// What a node does when it is told to: one line, one command. What it hears is printed as it
/// comes, by whatever thread hears it.
///
/// Ownership: owns the node's clients, which end before the node, the caller's.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: a command that cannot be understood or obeyed is a `std::exception`.
class BusNodeCommands {
public:
    explicit BusNodeCommands(tessaron::test::MulticastNode& node);

    /// What there is to say at the end, behind the "ok".
    std::string obey(std::string const& line);

private:
    /// The words of a command behind its name; the last of some commands is the rest of the line.
    class Words;
    using Command = std::function<std::string(Words&)>;
    using Client = std::shared_ptr<tessaron::bus::LocalClient>;

    void add_identity_commands();
    void add_event_commands();
    void add_request_commands();
    void add_discovery_commands();
    // BusNodeCommands_Clients.cpp
    void add_client_commands();
    std::string keep(Client client);
    tessaron::bus::LocalClient& client(Words& words);

    std::string who() const;

    tessaron::test::MulticastNode& node_;
    std::map<std::string, Command> commands_;
    std::map<std::uint32_t, Client> clients_;
};

class BusNodeCommands::Words {
public:
    explicit Words(std::string const& line);

    std::string next();
    /// Decimal.
    std::uint32_t number();
    std::chrono::milliseconds milliseconds();
    std::vector<std::uint8_t> bytes();
    std::string rest();

private:
    std::string const line_;
    std::size_t cursor_ = 0;
};

} // namespace bus_node
