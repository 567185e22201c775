#pragma once

#include "bus/Hub.hpp"
#include "libraries/interfaces/multicast/MulticastUdpInterface.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <array>
#include <stdexcept>
#include <string>

namespace tessaron::test {

/// A node on the real bus, as every application has one, for programs that are nothing but a node.
/// Meant for a process in a network of its own.
///
/// Ownership: owns its socket, its buffers and its hub.
/// Thread safety: immutable after construction; the hub locks for itself.
/// Errors: a group that cannot be joined is a `std::runtime_error`.
class MulticastNode {
public:
    static constexpr char const* K_GROUP = "239.255.19.35";
    static constexpr std::uint16_t K_PORT = 47765;

    MulticastNode(std::uint32_t address, std::string const& name,
                  bus::Hub::Settings const& settings = {},
                  proto::interface::MulticastTiming const& timing = {})
        : multicast(timing), hub({rx_.data(), rx_.size()}, {tx_.data(), tx_.size()}, address,
                                 proto::bus::make_identity(name, name, 1), settings) {}
    ~MulticastNode() { multicast.close(); }
    MulticastNode(MulticastNode const&) = delete;
    MulticastNode& operator=(MulticastNode const&) = delete;

    /// Returns with the address claimed. Set the warning sink before.
    void join(std::string const& group = K_GROUP, std::uint16_t port = K_PORT) {
        if (!multicast.open_multicast(group, port)) {
            throw std::runtime_error("cannot join " + group);
        }
        hub.set_interfaces(multicast, multicast);
    }

private:
    std::array<unsigned char, 8192> rx_{};
    std::array<unsigned char, 8192> tx_{};

public:
    proto::interface::MulticastUdpInterface multicast;
    bus::Hub hub;
};

} // namespace tessaron::test
