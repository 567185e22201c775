#pragma once

#include "proto/bus/Bytes.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace proto::bus {

inline constexpr std::size_t K_IDENTITY_TEXT_SIZE = 50;

/// Who a node is, sent as it stands in memory. The texts are padded with zero bytes, and one that
/// comes from the wire need not end in any: read them with `identity_field_to_string`.
///
/// Thread safety: one thread at a time, the caller's duty.
struct NodeIdentity {
    char name[K_IDENTITY_TEXT_SIZE]{};   ///< Display name; unique on the bus once a hub has joined.
    char binary[K_IDENTITY_TEXT_SIZE]{}; ///< The program's name.
    char group[K_IDENTITY_TEXT_SIZE]{};  ///< Free; groups nodes in reports.
    char extra[K_IDENTITY_TEXT_SIZE]{};  ///< Free; carried unchanged.
    std::uint32_t version = 0;           ///< The application's own.

    bool operator==(NodeIdentity const&) const = default;
};

static_assert(offsetof(NodeIdentity, name) == 0);
static_assert(offsetof(NodeIdentity, binary) == 50);
static_assert(offsetof(NodeIdentity, group) == 100);
static_assert(offsetof(NodeIdentity, extra) == 150);
static_assert(offsetof(NodeIdentity, version) == 200);
static_assert(sizeof(NodeIdentity) == 204 && std::is_trivially_copyable_v<NodeIdentity>);

/// Each text is cut to 49 bytes, so that a terminator follows it.
NodeIdentity make_identity(std::string_view name, std::string_view binary, std::uint32_t version,
                           std::string_view group = {}, std::string_view extra = {});

Bytes encode_identity(NodeIdentity const& identity);

/// All zeros when the payload is too short to hold one; what follows the identity is not looked at.
NodeIdentity decode_identity(Bytes const& payload);

/// The identity, and the topic's (or pattern's) bytes up to the payload's end.
Bytes encode_identity_and_topic(NodeIdentity const& identity, std::string_view topic);

/// Empty when nothing follows the identity.
std::string decode_topic_after_identity(Bytes const& payload);

} // namespace proto::bus
