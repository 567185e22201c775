#include "bus/DeviceRegistry.hpp"

#include "bus/identity_text.hpp"

#include <algorithm>
#include <utility>

namespace tessaron::bus {

namespace {

bool hosts(DiscoveredDevice const& device, std::uint32_t address) {
    return std::any_of(device.hosted_modules.begin(), device.hosted_modules.end(),
                       [address](auto const& module) { return module.address == address; });
}

} // namespace

void DeviceRegistry::upsert(std::uint32_t address, DiscoveredDevice device) {
    MutexLock lock(mutex_);
    if (!devices_.contains(address)) {
        make_room_locked();
    }
    devices_.insert_or_assign(address, std::move(device));
}

std::optional<DiscoveredDevice> DeviceRegistry::find(std::uint32_t address) const {
    MutexLock lock(mutex_);
    auto const found = devices_.find(address);
    return found == devices_.end() ? std::nullopt : std::optional(found->second);
}

bool DeviceRegistry::has_hosted_module(std::uint32_t address) const {
    MutexLock lock(mutex_);
    return std::any_of(devices_.begin(), devices_.end(),
                       [address](auto const& entry) { return hosts(entry.second, address); });
}

bool DeviceRegistry::is_claimed(std::uint32_t address,
                                std::chrono::steady_clock::time_point since) const {
    MutexLock lock(mutex_);
    return std::any_of(devices_.begin(), devices_.end(), [&](auto const& entry) {
        DiscoveredDevice const& device = entry.second;
        return device.last_seen >= since && (device.address == address || hosts(device, address));
    });
}

bool DeviceRegistry::has_name(std::string_view name) const {
    MutexLock lock(mutex_);
    return std::any_of(devices_.begin(), devices_.end(), [name](auto const& entry) {
        auto const& field = entry.second.identity.name;
        return identity_field_to_string(field, sizeof field) == name;
    });
}

std::unordered_map<std::uint32_t, DiscoveredDevice> DeviceRegistry::snapshot() const {
    MutexLock lock(mutex_);
    return devices_;
}

void DeviceRegistry::make_room_locked() {
    if (devices_.size() < K_MAX_DEVICES) {
        return;
    }
    devices_.erase(
        std::min_element(devices_.begin(), devices_.end(), [](auto const& a, auto const& b) {
            return a.second.last_seen < b.second.last_seen;
        }));
}

} // namespace tessaron::bus
