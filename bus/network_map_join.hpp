#pragma once

#include "proto/bus/network_map.hpp"

#include <cstddef>
#include <vector>

/// One map out of the answers of many nodes. Stateless, safe from any thread.
namespace tessaron::bus {

/// The answers of the nodes of one bus, joined: they all begin with that bus, whatever each calls
/// it. Its address is the first one that is not 0, since a plain node's is.
///
/// Hubs of one domain are the same when their addresses are. Of a hub that several answers name,
/// name and number are those of the first that knows them, the modules those of all; topics of one
/// module are told apart by their names. Domains behind gateways often have one address, as all
/// gateways call their far side alike; two of them are the same when a hub of both agrees in
/// address, name and number.
///
/// Hubs and modules stand in the order of their addresses, topics in that of their names. No
/// answers make an empty domain.
proto::bus::NetworkDomain network_map_join(std::vector<proto::bus::NetworkDomain> answers);

/// Domains that lie directly behind one bus; whoever tells of more does not tell the truth.
inline constexpr std::size_t K_MAX_JOINED_CHILDREN = 256;

} // namespace tessaron::bus
