#pragma once

#include "proto/bus/Bytes.hpp"
#include "proto/bus/NodeIdentity.hpp"
#include "proto/bus/topic_description.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a node answers to a discovery request. The payload, all numbers little-endian:
///
///     204 bytes   NodeIdentity
///     text        publications, one description a line
///     text        subscriptions, one description a line
///     u16 count   records: text name, u32 address, u8 hops, text note
///     text        roles, one a line
///     u16 count   modules: u32 address, text name, u16 count of topics, each a text
///
/// A text is a u16 length and its bytes. What does not fit into the 16 bits of a length or a count
/// stays out, and never disturbs what follows: of a list of lines whole lines are left out, any
/// other text is cut, and a list ends after 65535 entries.
///
/// Decoders are tolerant: they stop at the first field that does not fit, keep the whole records
/// that they have read, and treat the rest as absent. So a payload of 204 bytes, from a minimal
/// sender, gives empty lists. They allocate no more than a small multiple of the bytes they are
/// given, whatever these claim.
namespace proto::bus {

/// An address that the sender can route to.
struct DiscoveryRecord {
    std::string name;
    std::uint32_t address = 0;
    std::uint8_t hops = 0; ///< 1 for a direct neighbour.
    std::string note;      ///< "own domain" or "forwarded".

    bool operator==(DiscoveryRecord const&) const = default;
};

/// A client that the sender hosts.
struct HostedModuleInfo {
    std::uint32_t address = 0;
    std::string name;
    std::vector<std::string> topics;

    bool operator==(HostedModuleInfo const&) const = default;
};

/// All that follows the identity in a discovery response.
struct TopicsAndRoles {
    std::vector<TopicDescription> publications;
    std::vector<TopicDescription> subscriptions;
    std::vector<std::string> roles;
    std::vector<DiscoveryRecord> records;
    std::vector<HostedModuleInfo> modules;

    bool operator==(TopicsAndRoles const&) const = default;
};

Bytes encode_identity_topics_and_roles(NodeIdentity const& identity, TopicsAndRoles const& content);
TopicsAndRoles decode_topics_and_roles_after_identity(Bytes const& payload);

/// Appends to `out`.
void encode_discovery_records(Bytes& out, std::vector<DiscoveryRecord> const& records);
void encode_module_list(Bytes& out, std::vector<HostedModuleInfo> const& modules);

/// Read from `cursor` on and advance it past the list, or to `size` when the list is cut short:
/// then nothing that follows can be read either.
std::vector<DiscoveryRecord> decode_discovery_records(std::uint8_t const* data, std::size_t size,
                                                      std::size_t& cursor);
std::vector<HostedModuleInfo> decode_module_list(std::uint8_t const* data, std::size_t size,
                                                 std::size_t& cursor);

} // namespace proto::bus
