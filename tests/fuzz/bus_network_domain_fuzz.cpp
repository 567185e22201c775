// Any network map, and any request for one: what is read is written anew as the same, and what
// stands in the bytes is all there is.

#include "proto/bus/network_map.hpp"
#include "tests/fuzz/require.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {

std::size_t depth_of(proto::bus::NetworkDomain const& domain) {
    std::size_t depth = 0;
    for (auto const& child : domain.children) {
        depth = std::max(depth, depth_of(child));
    }
    return depth + 1;
}

void read_domain(proto::bus::Bytes const& payload) {
    auto const domain = proto::bus::decode_network_domain(payload);
    if (!domain) {
        return;
    }
    require(depth_of(*domain) <= proto::bus::K_MAX_NETWORK_DOMAIN_DEPTH);
    auto const written = encode_network_domain(*domain);
    require(written.size() <= payload.size());
    require(proto::bus::decode_network_domain(written) == domain);
}

void read_request(proto::bus::Bytes const& payload) {
    try {
        auto const request = proto::bus::DiscoverNetworkRequest::parse(payload);
        auto const written = request.build();
        require(std::equal(written.begin(), written.end(), payload.begin()));
    } catch (std::invalid_argument const&) {
        // Refused, as it may be.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    proto::bus::Bytes const payload(data, data + size);
    read_domain(payload);
    read_request(payload);
    return 0;
}
