#pragma once

#include "bus/CallGate.hpp"
#include "bus/NetworkSource.hpp"
#include "bus/RoutingTable.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

// Two hubs of one process, each on a transport of its own: what is addressed to the other side
// crosses over, on the thread that received it.
namespace tessaron::bus {

class Hub;

using Addresses = std::vector<std::uint32_t>;

/// The way between two hubs. Forwarders share it with whoever made it, who closes it before either
/// hub goes: from then on nothing crosses, and nobody is on the way.
///
/// It keeps count of the single addresses that it has made routes for, and makes no more than
/// `K_MAX_ROUTES`: nodes on either side call themselves what they like, and each route is told to
/// all of the other side in one message of limited size.
///
/// Thread safety: safe from any thread. `close` once.
/// Errors: none.
class Crossing : public std::enable_shared_from_this<Crossing> {
public:
    static constexpr std::size_t K_MAX_ROUTES = 8192;

    void close() { gate_.close(); }
    /// Takes frames that `from` receives to `to`, where they enter as if received there. Whoever
    /// sent one is then reached from that side.
    RouteForward forwarder(Hub& from, Hub& to);
    /// Asks `to` for the map of its side.
    NetworkSource map_of(Hub& to);
    /// A route of `other` to an address on the side of `here`, unless it has one, or the address is
    /// on its own side.
    void add_route(Hub& here, Hub& other, std::uint32_t address);

private:
    CallGate gate_;
    std::atomic<std::size_t> routes_{0};
};

/// Routes between the domains of the two; each is the far side of the other.
void bridge_hubs(Hub& local, Hub& remote,
                 std::shared_ptr<Crossing> const& crossing = std::make_shared<Crossing>());

/// Routes for every node, and every client of one, that one hub has discovered and the other cannot
/// reach yet. Returns both lists with the addresses that were found added, in order. Routes are
/// only added: a node that has gone keeps its own.
std::pair<Addresses, Addresses>
sync_device_routes(Hub& local, Hub& remote, Addresses local_seen, Addresses remote_seen,
                   std::shared_ptr<Crossing> const& crossing = std::make_shared<Crossing>());

} // namespace tessaron::bus
