#pragma once

#include "proto/bus/Bytes.hpp"
#include "proto/bus/topic_description.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The network as seen through gateways: a tree of domains, and the request for it. All numbers are
/// little-endian, a text is a u16 length and its bytes, a list a u16 count and its entries:
///
///     NetworkDomain     u32 address, list of HubSummary, list of NetworkDomain
///     HubSummary        u32 address, text name, u32 value, list of ModuleSummary
///     ModuleSummary     u32 address, text name, list of TopicDescription
///     TopicDescription  text name, text description, u16 kind, u16 flag, list of TopicParam
///     TopicParam        text name, text text, u16 flag
///
/// On the wire a kind of 1 is a request and any other an event; a flag is set unless it is 0.
namespace proto::bus {

struct ModuleSummary {
    std::uint32_t address = 0;
    std::string name;
    std::vector<TopicDescription> topics;

    bool operator==(ModuleSummary const&) const = default;
};

struct HubSummary {
    std::uint32_t address = 0;
    std::string name;
    std::uint32_t value = 0; ///< Carried unchanged.
    std::vector<ModuleSummary> modules;

    bool operator==(HubSummary const&) const = default;
};

struct NetworkDomain {
    std::uint32_t address = 0;
    std::vector<HubSummary> hubs;
    std::vector<NetworkDomain> children;

    bool operator==(NetworkDomain const&) const = default;
};

/// How many domains may lie within each other, the outermost one counted. A frame lives for 8 hops,
/// so no real network comes near it; it is what keeps a hostile tree from exhausting the stack.
inline constexpr std::size_t K_MAX_NETWORK_DOMAIN_DEPTH = 32;

/// Domains that lie deeper than `K_MAX_NETWORK_DOMAIN_DEPTH` are left out. Texts are cut to 65535
/// bytes and lists to as many entries.
Bytes encode_network_domain(NetworkDomain const& domain);

/// No value when the data runs out, or when the tree is too deep; bytes behind it are ignored.
std::optional<NetworkDomain> decode_network_domain(Bytes const& payload);

/// Asks a hub for the domains that it reaches.
struct DiscoverNetworkRequest {
    std::uint16_t max_depth = 0;        ///< How many hops further the question may go.
    std::vector<std::uint32_t> visited; ///< Nodes that have been asked already.

    Bytes build() const;
    /// Throws `std::invalid_argument` with "DiscoverNetworkRequest: truncated or malformed".
    static DiscoverNetworkRequest parse(Bytes const& payload);

    bool operator==(DiscoverNetworkRequest const&) const = default;
};

} // namespace proto::bus
