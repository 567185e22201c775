#pragma once

#include "bus/glob_pattern.hpp"
#include "proto/bus/topic_match.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace tessaron::bus {

/// Handlers by topic: plain topics are found by their id, patterns by the topic's name. A topic
/// whose name nobody has said yet matches no pattern.
///
/// Thread safety: one thread at a time, the caller's duty. Handlers are handed out as copies, to be
/// called without the caller's lock.
template <typename Handler>
class HandlerTable {
public:
    void add(std::string const& pattern, Handler handler) {
        if (is_glob_pattern(pattern)) {
            by_pattern_.emplace(pattern, std::move(handler));
        } else {
            by_id_.emplace(proto::bus::topic_hash(pattern.c_str()), std::move(handler));
        }
    }

    /// Those of the exact topic first.
    std::vector<Handler> find(std::uint16_t topic_id, std::string const& name) const {
        std::vector<Handler> found;
        if (topic_id != 0) {
            auto const [first, last] = by_id_.equal_range(topic_id);
            for (auto it = first; it != last; ++it) {
                found.push_back(it->second);
            }
        }
        if (!name.empty()) {
            for (auto const& [pattern, handler] : by_pattern_) {
                if (proto::bus::glob_match(pattern, name)) {
                    found.push_back(handler);
                }
            }
        }
        return found;
    }

    bool matches(std::uint16_t topic_id, std::string const& name) const {
        return (topic_id != 0 && by_id_.contains(topic_id)) || matches_pattern(name);
    }

private:
    bool matches_pattern(std::string const& name) const {
        return !name.empty() &&
               std::any_of(by_pattern_.begin(), by_pattern_.end(), [&name](auto const& entry) {
                   return proto::bus::glob_match(entry.first, name);
               });
    }

    std::multimap<std::string, Handler> by_pattern_;
    std::unordered_multimap<std::uint16_t, Handler> by_id_;
};

} // namespace tessaron::bus
