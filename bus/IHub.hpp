#pragma once

#include "bus/DeviceRegistry.hpp"
#include "bus/Envelope.hpp"
#include "bus/LocalClientBindings.hpp"
#include "libraries/vocabulary/IInterface.hpp"
#include "proto/bus/Bytes.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace tessaron::bus {

class LocalClient;

/// Subscriptions for which no publisher is known.
class UnmatchedSubscriptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A bus node, as services use it.
///
/// Events are broadcast: each receiver picks what it has handlers for. Requests are broadcast
/// unless aimed, and the first reply wins. Every loss is silent: a request ends in a reply or in a
/// time-out.
///
/// Thread safety: safe from any thread, handlers included, with two exceptions: `set_interfaces`
/// and the functions that claim an address wait for answers and must not be called from a handler;
/// and a `request` from an event handler waits for a reply that is delivered only after the handler
/// has returned, so it always times out.
class IHub {
public:
    using Bytes = proto::bus::Bytes;
    using EventHandler = std::function<void(Envelope const&)>;
    using Server = std::function<Bytes(Bytes const&)>;

    virtual ~IHub() = default;

    /// Joins the bus. Blocks while an address is claimed: two probe windows at the least, eight
    /// rounds of two at the most. The interfaces outlive the hub.
    virtual void set_interfaces(proto::interface::IInterface& rx,
                                proto::interface::IInterface& tx) = 0;

    virtual void publish(std::string const& topic, Envelope const& envelope) = 0;
    /// A topic, or a pattern with "*". A payload that is no envelope costs a warning.
    virtual void subscribe(std::string const& topic, EventHandler handler,
                           std::string description) = 0;
    /// Answers requests, one at a time on the hub's request worker.
    virtual void serve(std::string const& topic, Server server, std::string description) = 0;
    /// The first reply, or nothing after the time.
    virtual std::optional<Bytes> request(std::string const& topic, Bytes const& payload,
                                         std::chrono::milliseconds timeout) = 0;

    /// A node of its own within this process, at exactly this address.
    virtual std::shared_ptr<LocalClient> connect(std::uint32_t address,
                                                 proto::bus::NodeIdentity const& identity) = 0;
    virtual LocalClientBindings make_client_bindings(std::uint32_t address) = 0;
    virtual void register_local_client(std::uint32_t address,
                                       std::weak_ptr<LocalClient> client) = 0;
    /// An address that nobody on the bus has, the preferred one if possible. Blocks for two probe
    /// windows at the least.
    virtual std::uint32_t resolve_local_client_address(std::uint32_t preferred,
                                                       std::uint64_t hardware_id,
                                                       std::string const& label) = 0;
    /// A client at such an address, claimed against others that choose in the same instant.
    virtual std::shared_ptr<LocalClient> connect_resolved(std::uint32_t preferred,
                                                          proto::bus::NodeIdentity const& identity,
                                                          std::uint64_t hardware_id) = 0;

    /// Throws `UnmatchedSubscriptionError`.
    virtual void validate_subscriptions() const = 0;
    /// Asks everybody who they are; the answers come in later.
    virtual void discover() = 0;
    /// Whoever has been heard, and this node.
    virtual std::unordered_map<std::uint32_t, DiscoveredDevice> discovered_devices() const = 0;
    virtual std::string build_report() const = 0;
    virtual void print_table_report(std::ostream& out) const = 0;

    /// An address for a client that only publishes, so that it does not matter much if somebody
    /// else has it: nobody is asked and nothing is waited for. It is none of this process's, nor of
    /// anybody's who has been heard of; the same one for the same label, if possible.
    virtual std::uint32_t pick_local_client_address(std::uint64_t hardware_id,
                                                    std::string const& label) = 0;
};

} // namespace tessaron::bus
