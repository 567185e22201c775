#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/NodeIdentity.hpp"
#include "proto/bus/discovery_records.hpp"
#include "proto/bus/topic_description.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tessaron::bus {

/// One peer as it was last heard.
struct DiscoveredDevice {
    proto::bus::NodeIdentity identity;
    std::uint32_t address = 0;
    std::vector<proto::bus::TopicDescription> publications;
    std::vector<proto::bus::TopicDescription> subscriptions;
    std::vector<std::string> roles;
    std::vector<proto::bus::HostedModuleInfo> hosted_modules;
    std::chrono::steady_clock::time_point last_seen;
    /// Tells the hub from all others, wherever it is heard of; see `network_number`. 0 when it does
    /// not tell.
    std::uint32_t network_number = 0;
};

/// The peers that have been heard, by address.
///
/// Nobody says goodbye on the bus, so nothing is removed for its age. A full registry gives up the
/// peers that have been silent for longest when one is heard: there may be no more than
/// `K_MAX_DEVICES`, and, since a peer may tell a mebibyte of itself, no more than `K_MAX_HELD_SIZE`
/// bytes about all of them.
///
/// Ownership: records are copied in and out.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none; an unknown address is an empty optional.
class DeviceRegistry {
public:
    static constexpr std::size_t K_MAX_DEVICES = 4096;
    static constexpr std::size_t K_MAX_HELD_SIZE = std::size_t{64} * 1024 * 1024;

    /// Replaces the whole record.
    void upsert(std::uint32_t address, DiscoveredDevice device) TESSARON_EXCLUDES(mutex_);
    std::optional<DiscoveredDevice> find(std::uint32_t address) const TESSARON_EXCLUDES(mutex_);
    /// Whether a peer hosts a client with this address.
    bool has_hosted_module(std::uint32_t address) const TESSARON_EXCLUDES(mutex_);
    /// Whether a peer heard at `since` or later has this address or hosts a client with it. What
    /// was heard before does not count: it may be a record of this very node, before it started
    /// anew.
    bool is_claimed(std::uint32_t address, std::chrono::steady_clock::time_point since) const
        TESSARON_EXCLUDES(mutex_);
    /// Whether a peer has exactly this display name.
    bool has_name(std::string_view name) const TESSARON_EXCLUDES(mutex_);
    std::unordered_map<std::uint32_t, DiscoveredDevice> snapshot() const TESSARON_EXCLUDES(mutex_);
    /// As `K_MAX_HELD_SIZE` counts.
    std::size_t held_size() const TESSARON_EXCLUDES(mutex_);

private:
    using Devices = std::unordered_map<std::uint32_t, DiscoveredDevice>;

    void make_room_locked(std::size_t size) TESSARON_REQUIRES(mutex_);
    void forget_locked(Devices::iterator device) TESSARON_REQUIRES(mutex_);

    mutable Mutex mutex_;
    Devices devices_ TESSARON_GUARDED_BY(mutex_);
    std::size_t held_ TESSARON_GUARDED_BY(mutex_) = 0;
};

} // namespace tessaron::bus
