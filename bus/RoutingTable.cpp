#include "bus/RoutingTable.hpp"

#include <utility>

namespace tessaron::bus {

std::optional<Route> RoutingTable::find(std::uint32_t destination) const {
    MutexLock lock(mutex_);
    auto const found = routes_.find(destination);
    return found == routes_.end() ? std::nullopt : std::optional(found->second);
}

bool RoutingTable::has(std::uint32_t destination) const {
    MutexLock lock(mutex_);
    return routes_.contains(destination);
}

void RoutingTable::add(std::uint32_t destination, std::uint32_t via, RouteForward forward,
                       bool direct) {
    // Made before the lock is taken: what an earlier route captured dies with it, outside the lock.
    Route route{via, std::move(forward), direct};
    MutexLock lock(mutex_);
    auto const found = routes_.find(destination);
    if (found != routes_.end()) {
        std::swap(found->second, route);
    } else if (routes_.size() < K_MAX_ROUTES) {
        routes_.emplace(destination, std::move(route));
    }
}

bool RoutingTable::add_if_absent(std::uint32_t destination, std::uint32_t via, RouteForward forward,
                                 bool direct) {
    MutexLock lock(mutex_);
    if (routes_.size() >= K_MAX_ROUTES) {
        return false;
    }
    return routes_.try_emplace(destination, Route{via, std::move(forward), direct}).second;
}

std::unordered_map<std::uint32_t, Route> RoutingTable::snapshot() const {
    MutexLock lock(mutex_);
    return routes_;
}

} // namespace tessaron::bus
