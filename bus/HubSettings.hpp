#pragma once

#include "bus/BusWire.hpp"
#include "bus/WireFrame.hpp"
#include "bus/debug_marker.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace tessaron::bus {

/// The numbers of a hub, which it has as its own.
struct HubConstants {
    using Milliseconds = std::chrono::milliseconds;

    static constexpr std::uint32_t BROADCAST_ADDRESS = 0xFFFFFFFF;
    static constexpr std::uint8_t DEFAULT_TTL = K_DEFAULT_TTL;
    static constexpr Milliseconds DEFAULT_ADDRESS_PROBE_WINDOW{200};
    static constexpr Milliseconds DEFAULT_DISCOVERY_DEBOUNCE{5'000};
    static constexpr Milliseconds DEFAULT_SUBSCRIPTION_TTL{60'000};
    static constexpr Milliseconds DEFAULT_DISCOVERY_TIMEOUT{500};
    /// How long others are told what was found beyond the gateways before.
    static constexpr std::chrono::seconds K_NETWORK_MAP_CACHE_TTL{10};
    /// A node that has been silent for so long is asked whether it is still there: longer than it
    /// refuses to answer the same question again.
    static constexpr std::chrono::seconds K_PRESENCE_PATIENCE{6};
    /// Of hubs that have a far side, so that others know whom to ask for it.
    static constexpr char K_GATEWAY_ROLE[] = "gateway";
    static constexpr std::chrono::seconds K_VERSION_MISMATCH_WARNING_INTERVAL{30};
    static constexpr std::size_t K_MAX_DATA_FIELD_CHUNK_SIZE = 4014;
    static constexpr std::uint8_t PROTOCOL_VERSION = BusWire::K_PROTOCOL_VERSION;
    static constexpr std::size_t MAX_PAYLOAD_SIZE = 4096;
    /// Room kept in a frame for all fields but the data.
    static constexpr std::size_t K_MAX_FRAME_OVERHEAD = 82;
    /// A larger message is refused.
    static constexpr std::size_t K_MAX_MESSAGE_SIZE = 0x100000;
    /// Smaller payloads are not worth compressing.
    static constexpr std::size_t K_MIN_COMPRESSED_SIZE = 1024;
    static constexpr unsigned K_ADDRESS_ATTEMPTS = 8;
    /// Messages that a hub remembers.
    static constexpr std::size_t K_TRACE_SIZE = 500;
};

/// How a hub behaves; the defaults are the application's.
struct HubSettings {
    using Milliseconds = HubConstants::Milliseconds;

    Milliseconds discovery_debounce = HubConstants::DEFAULT_DISCOVERY_DEBOUNCE;
    Milliseconds subscription_ttl = HubConstants::DEFAULT_SUBSCRIPTION_TTL;
    std::uint16_t channel = 0;
    std::uint16_t channel_max = 0;
    std::uint64_t hardware_id = 0; ///< Makes alternate addresses differ between machines.
    Milliseconds address_probe_window = HubConstants::DEFAULT_ADDRESS_PROBE_WINDOW;
    /// Where the node leaves its marker; see debug_marker.hpp.
    std::filesystem::path debug_marker_base = K_DEBUG_MARKER_BASE;
    Milliseconds network_map_cache_ttl = HubConstants::K_NETWORK_MAP_CACHE_TTL;
    Milliseconds presence_patience = HubConstants::K_PRESENCE_PATIENCE;
    std::uint32_t domain = 0; ///< A second address of the node; a gateway's hubs have one.
};

} // namespace tessaron::bus
