#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/network_map.hpp"

#include <chrono>
#include <optional>
#include <utility>

namespace tessaron::bus {

/// What was found behind the gateways of a bus, for a short time: everybody on the bus asks the
/// same gateways the same question when a map of the network is drawn, and then one walk answers
/// all.
///
/// Ownership: domains are copied in and out.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none; what is too old, or was the answer to another question, is an empty optional.
class NetworkMapCache {
public:
    using Time = std::chrono::steady_clock::time_point;
    explicit NetworkMapCache(std::chrono::milliseconds ttl) : ttl_(ttl) {}

    /// `came_across`: the question came from the far side of a gateway.
    void put(proto::bus::DiscoverNetworkRequest question, bool came_across,
             proto::bus::NetworkDomain beyond, Time now) TESSARON_EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        entry_ = Entry{std::move(question), came_across, std::move(beyond), now};
    }
    std::optional<proto::bus::NetworkDomain>
    find(proto::bus::DiscoverNetworkRequest const& question, bool came_across, Time now) const
        TESSARON_EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        bool const is_fresh = entry_ && entry_->question == question &&
                              entry_->came_across == came_across && now - entry_->time < ttl_;
        return is_fresh ? std::optional(entry_->beyond) : std::nullopt;
    }

private:
    struct Entry {
        proto::bus::DiscoverNetworkRequest question;
        bool came_across = false;
        proto::bus::NetworkDomain beyond;
        Time time;
    };

    std::chrono::milliseconds const ttl_;
    mutable Mutex mutex_;
    std::optional<Entry> entry_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
