#include "bus/bridge.hpp"

#include "bus/Hub.hpp"

#include <algorithm>

namespace tessaron::bus {
namespace {

/// A node that has no address yet sends from this one.
constexpr std::uint32_t K_NO_SOURCE = 0xFFFF;

/// Where the nodes on the side of `to` send their answers to the frame; its domain, if that is
/// what they send them to, has its route already.
std::uint32_t answer_address(Hub const& from, Hub const& to, WireFrame const& frame) {
    if (!frame.origin) {
        return frame.source & 0xFFFF;
    }
    std::uint32_t const domain = frame.origin->hub_address();
    bool const is_bridged = domain == from.domain_hash() || domain == to.domain_hash();
    return is_bridged ? frame.origin->local_address() : domain;
}

bool is_own(Hub const& hub, std::uint32_t address) {
    return address == hub.address() || address == hub.domain_hash();
}

void sync_one_way(Hub& here, Hub& other, Addresses& seen, Crossing& crossing) {
    for (auto const& [address, device] : here.discovered_devices()) {
        seen.push_back(address);
        for (auto const& module : device.hosted_modules) {
            seen.push_back(module.address);
        }
    }
    std::sort(seen.begin(), seen.end());
    seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
    for (std::uint32_t const address : seen) {
        crossing.add_route(here, other, address);
    }
}

} // namespace

RouteForward Crossing::forwarder(Hub& from, Hub& to) {
    return [crossing = shared_from_this(), &from, &to](std::uint32_t, WireFrame const& frame) {
        CallGate::Pass const pass(crossing->gate_);
        if (pass) {
            crossing->add_route(from, to, answer_address(from, to, frame));
            to.inject_frame(frame);
        }
    };
}

NetworkSource Crossing::map_of(Hub& to) {
    return [crossing = shared_from_this(), &to](std::uint8_t max_depth, Addresses const& visited,
                                                std::chrono::milliseconds timeout) {
        CallGate::Pass const pass(crossing->gate_);
        return pass ? to.discover_network_impl(max_depth, visited, timeout, true)
                    : proto::bus::NetworkDomain();
    };
}

void Crossing::add_route(Hub& here, Hub& other, std::uint32_t address) {
    // An address that `here` reaches through `other` belongs to that side, whoever else uses it.
    if (address == K_NO_SOURCE || address == Hub::BROADCAST_ADDRESS || is_own(other, address) ||
        other.has_local_route(address) || here.has_local_route(address)) {
        return;
    }
    if (routes_.fetch_add(1) >= K_MAX_ROUTES) {
        --routes_;
        return;
    }
    other.add_route(address, address, forwarder(other, here), false);
}

void bridge_hubs(Hub& local, Hub& remote, std::shared_ptr<Crossing> const& crossing) {
    local.add_route(remote.domain_hash(), remote.domain_hash(), crossing->forwarder(local, remote),
                    true);
    remote.add_route(local.domain_hash(), local.domain_hash(), crossing->forwarder(remote, local),
                     true);
    local.add_far_side(crossing->map_of(remote));
    remote.add_far_side(crossing->map_of(local));
}

std::pair<Addresses, Addresses> sync_device_routes(Hub& local, Hub& remote, Addresses local_seen,
                                                   Addresses remote_seen,
                                                   std::shared_ptr<Crossing> const& crossing) {
    sync_one_way(local, remote, local_seen, *crossing);
    sync_one_way(remote, local, remote_seen, *crossing);
    return {std::move(local_seen), std::move(remote_seen)};
}

} // namespace tessaron::bus
