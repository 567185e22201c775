#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// What topics are called, and the last payload that this node published on each.
///
/// Frames carry a topic's id; its name becomes known when somebody says it. Of two topics with one
/// id the first keeps the name.
///
/// Ownership: everything is copied in and out.
/// Thread safety: safe from any thread; one internal lock, the inner one where a caller holds its
/// own.
/// Errors: none; what is unknown is empty.
class TopicRegistry {
public:
    using Bytes = std::vector<std::uint8_t>;

    /// Larger payloads are not retained.
    static constexpr std::size_t K_MAX_RETAINED_SIZE = 16384;
    /// Longer names, which only a broken or hostile peer sends, are not kept: there may be one for
    /// each of the 65536 ids.
    static constexpr std::size_t K_MAX_NAME_SIZE = 1024;

    /// Ignored when the name is empty or a pattern.
    void register_name(std::uint16_t id, std::string const& name) TESSARON_EXCLUDES(mutex_);
    /// Empty when nobody has said it yet.
    std::string resolve_name(std::uint16_t id) const TESSARON_EXCLUDES(mutex_);

    /// A payload that is too large takes away the earlier one, so that nobody gets a stale value.
    void retain(std::string const& topic, Bytes const& payload) TESSARON_EXCLUDES(mutex_);
    std::optional<Bytes> retained(std::string const& topic) const TESSARON_EXCLUDES(mutex_);
    /// The topics that match the pattern, in no order, with what is retained for them.
    std::vector<std::pair<std::string, Bytes>> matching_retained(std::string const& pattern) const
        TESSARON_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    std::unordered_map<std::uint16_t, std::string> names_ TESSARON_GUARDED_BY(mutex_);
    std::unordered_map<std::string, Bytes> retained_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
