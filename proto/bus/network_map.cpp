#include "proto/bus/network_map.hpp"

#include "proto/bus/wire_fields.hpp"

#include <algorithm>
#include <stdexcept>

namespace proto::bus {

template <RecordOf<ModuleSummary> Record>
auto fields_of(Record& module) {
    return std::tie(module.address, module.name, module.topics);
}

template <RecordOf<HubSummary> Record>
auto fields_of(Record& hub) {
    return std::tie(hub.address, hub.name, hub.value, hub.modules);
}

template <RecordOf<DiscoverNetworkRequest> Record>
auto fields_of(Record& request) {
    return std::tie(request.max_depth, request.visited);
}

namespace {

/// `depth` counts the domains that this one lies within, itself included.
void write_domain(Bytes& out, NetworkDomain const& domain, std::size_t depth) {
    detail::encode_u32(out, domain.address);
    detail::write_field(out, domain.hubs);
    std::size_t const children = depth < K_MAX_NETWORK_DOMAIN_DEPTH
                                     ? std::min(domain.children.size(), detail::K_MAX_U16)
                                     : 0;
    detail::encode_u16(out, static_cast<std::uint16_t>(children));
    for (std::size_t i = 0; i < children; ++i) {
        write_domain(out, domain.children[i], depth + 1);
    }
}

bool read_domain(detail::FieldReader& in, NetworkDomain& domain, std::size_t depth) {
    std::uint16_t children = 0;
    if (depth > K_MAX_NETWORK_DOMAIN_DEPTH || !detail::read_field(in, domain.address) ||
        !detail::read_field(in, domain.hubs) || !detail::read_field(in, children)) {
        return false;
    }
    for (; children > 0; --children) {
        if (!read_domain(in, domain.children.emplace_back(), depth + 1)) {
            return false;
        }
    }
    return true;
}

} // namespace

Bytes encode_network_domain(NetworkDomain const& domain) {
    Bytes payload;
    write_domain(payload, domain, 1);
    return payload;
}

std::optional<NetworkDomain> decode_network_domain(Bytes const& payload) {
    detail::FieldReader in{payload.data(), payload.size()};
    NetworkDomain domain;
    if (!read_domain(in, domain, 1)) {
        return std::nullopt;
    }
    return domain;
}

Bytes DiscoverNetworkRequest::build() const {
    Bytes payload;
    detail::write_field(payload, *this);
    return payload;
}

DiscoverNetworkRequest DiscoverNetworkRequest::parse(Bytes const& payload) {
    detail::FieldReader in{payload.data(), payload.size()};
    DiscoverNetworkRequest request;
    if (!detail::read_field(in, request)) {
        throw std::invalid_argument("DiscoverNetworkRequest: truncated or malformed");
    }
    return request;
}

} // namespace proto::bus
