#pragma once

#include "proto/bus/MessageType.hpp"
#include "proto/bus/Origin.hpp"

#include <cstdint>
#include <optional>
#include <vector>

namespace tessaron::bus {

inline constexpr std::uint8_t K_FRAG_FLAG_FRAGMENT = 1;   ///< The payload is part of a message's.
inline constexpr std::uint8_t K_FRAG_FLAG_LAST = 2;       ///< And it is the last part.
inline constexpr std::uint8_t K_FRAG_FLAG_COMPRESSED = 4; ///< The whole payload is compressed.

/// How many hubs may pass a frame on, unless its sender says otherwise.
inline constexpr std::uint8_t K_DEFAULT_TTL = 8;

/// One frame with its options resolved: what was absent on the wire has its default here. Also a
/// message put together from its fragments, and a frame on its way through a gateway.
///
/// Thread safety: one thread at a time, the caller's duty.
struct WireFrame {
    proto::bus::MessageType type{};
    std::uint32_t source = 0;
    std::uint32_t dest = 0;
    std::uint32_t msg_id = 0;
    std::uint16_t frag_index = 0;
    std::uint8_t frag_flags = 0;
    std::uint8_t ttl = K_DEFAULT_TTL;
    std::optional<proto::bus::Origin> origin;
    std::uint16_t topic_id = 0;
    std::uint32_t uncompressed_size = 0; ///< Of the whole payload, when it is compressed.
    std::vector<std::uint8_t> data;

    bool operator==(WireFrame const&) const = default;
};

} // namespace tessaron::bus
