#include "bus/DeviceRegistry.hpp"

#include "bus/identity_text.hpp"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tessaron::bus {

namespace {

bool hosts(DiscoveredDevice const& device, std::uint32_t address) {
    return std::any_of(device.hosted_modules.begin(), device.hosted_modules.end(),
                       [address](auto const& module) { return module.address == address; });
}

std::size_t size_of(std::string const& text) {
    return sizeof(text) + text.size();
}

std::size_t size_of(proto::bus::TopicParam const& param) {
    return sizeof(param) + param.name.size() + param.text.size();
}

template <typename Entry>
std::size_t size_of(std::vector<Entry> const& entries);

std::size_t size_of(proto::bus::TopicDescription const& topic) {
    return sizeof(topic) + topic.name.size() + topic.description.size() + size_of(topic.params);
}

std::size_t size_of(proto::bus::HostedModuleInfo const& module) {
    return sizeof(module) + module.name.size() + size_of(module.topics);
}

template <typename Entry>
std::size_t size_of(std::vector<Entry> const& entries) {
    return std::accumulate(
        entries.begin(), entries.end(), std::size_t{0},
        [](std::size_t sum, Entry const& entry) { return sum + size_of(entry); });
}

/// About what a record takes: most of all its lists, whose entries take more room here than on the
/// wire.
std::size_t size_of(DiscoveredDevice const& device) {
    return sizeof(device) + size_of(device.publications) + size_of(device.subscriptions) +
           size_of(device.roles) + size_of(device.hosted_modules);
}

} // namespace

void DeviceRegistry::upsert(std::uint32_t address, DiscoveredDevice device) {
    std::size_t const size = size_of(device);
    MutexLock lock(mutex_);
    if (auto const earlier = devices_.find(address); earlier != devices_.end()) {
        forget_locked(earlier);
    }
    make_room_locked(size);
    devices_.emplace(address, std::move(device));
    held_ += size;
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

std::size_t DeviceRegistry::held_size() const {
    MutexLock lock(mutex_);
    return held_;
}

void DeviceRegistry::make_room_locked(std::size_t size) {
    while (!devices_.empty() &&
           (devices_.size() >= K_MAX_DEVICES || held_ + size > K_MAX_HELD_SIZE)) {
        forget_locked(
            std::min_element(devices_.begin(), devices_.end(), [](auto const& a, auto const& b) {
                return a.second.last_seen < b.second.last_seen;
            }));
    }
}

void DeviceRegistry::forget_locked(Devices::iterator device) {
    held_ -= size_of(device->second);
    devices_.erase(device);
}

} // namespace tessaron::bus
