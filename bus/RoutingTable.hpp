#pragma once

#include "bus/WireFrame.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>

namespace tessaron::bus {

/// Takes a frame to where it is bound; its ttl is already that of the next hop.
using RouteForward = std::function<void(std::uint32_t via, WireFrame const& frame)>;

struct Route {
    std::uint32_t via = 0; ///< The bus address to send to next.
    RouteForward forward;  ///< Empty for a route on this bus.
    /// The destination is a neighbour, or a neighbouring domain as a whole; not set for one node
    /// behind a gateway.
    bool direct = false;
};

/// Next hop for a destination that this node does not host.
///
/// What a neighbour's discovery response teaches comes in by `add_if_absent`, so that it never
/// displaces a configured route; nothing is ever removed. A table that holds `K_MAX_ROUTES` takes
/// no further destinations, so that a flood of made-up neighbours cannot fill the memory.
///
/// Ownership: routes are copied in and out; what `Route::forward` captures must outlive the table.
/// Thread safety: safe from any thread; one internal lock, never held while `forward` runs.
/// Errors: none; an unknown destination is an empty optional.
class RoutingTable {
public:
    static constexpr std::size_t K_MAX_ROUTES = 65536;

    std::optional<Route> find(std::uint32_t destination) const TESSARON_EXCLUDES(mutex_);
    bool has(std::uint32_t destination) const TESSARON_EXCLUDES(mutex_);
    /// Replaces the route that is there.
    void add(std::uint32_t destination, std::uint32_t via, RouteForward forward, bool direct)
        TESSARON_EXCLUDES(mutex_);
    /// Returns false, and changes nothing, when the destination is already known.
    bool add_if_absent(std::uint32_t destination, std::uint32_t via, RouteForward forward,
                       bool direct) TESSARON_EXCLUDES(mutex_);
    std::unordered_map<std::uint32_t, Route> snapshot() const TESSARON_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    std::unordered_map<std::uint32_t, Route> routes_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
