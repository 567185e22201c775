#include "bus/TopicRegistry.hpp"

#include "bus/glob_pattern.hpp"
#include "proto/bus/topic_match.hpp"

namespace tessaron::bus {

void TopicRegistry::register_name(std::uint16_t id, std::string const& name) {
    if (name.empty() || is_glob_pattern(name) || name.size() > K_MAX_NAME_SIZE) {
        return;
    }
    MutexLock lock(mutex_);
    names_.try_emplace(id, name);
}

std::string TopicRegistry::resolve_name(std::uint16_t id) const {
    MutexLock lock(mutex_);
    auto const found = names_.find(id);
    return found == names_.end() ? std::string{} : found->second;
}

void TopicRegistry::retain(std::string const& topic, Bytes const& payload) {
    MutexLock lock(mutex_);
    if (payload.size() <= K_MAX_RETAINED_SIZE) {
        retained_[topic] = payload;
    } else {
        retained_.erase(topic);
    }
}

std::optional<TopicRegistry::Bytes> TopicRegistry::retained(std::string const& topic) const {
    MutexLock lock(mutex_);
    auto const found = retained_.find(topic);
    return found == retained_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::pair<std::string, TopicRegistry::Bytes>>
TopicRegistry::matching_retained(std::string const& pattern) const {
    std::vector<std::pair<std::string, Bytes>> matching;
    MutexLock lock(mutex_);
    for (auto const& [topic, payload] : retained_) {
        if (proto::bus::glob_match(pattern, topic)) {
            matching.emplace_back(topic, payload);
        }
    }
    return matching;
}

} // namespace tessaron::bus
