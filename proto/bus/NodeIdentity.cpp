#include "proto/bus/NodeIdentity.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace proto::bus {

static_assert(std::endian::native == std::endian::little,
              "an identity is sent as it stands in memory");

namespace {

void set_text(char (&field)[K_IDENTITY_TEXT_SIZE], std::string_view text) {
    text.copy(field, std::min(text.size(), K_IDENTITY_TEXT_SIZE - 1));
}

} // namespace

NodeIdentity make_identity(std::string_view name, std::string_view binary, std::uint32_t version,
                           std::string_view group, std::string_view extra) {
    NodeIdentity identity;
    set_text(identity.name, name);
    set_text(identity.binary, binary);
    set_text(identity.group, group);
    set_text(identity.extra, extra);
    identity.version = version;
    return identity;
}

Bytes encode_identity(NodeIdentity const& identity) {
    return encode_identity_and_topic(identity, {});
}

NodeIdentity decode_identity(Bytes const& payload) {
    NodeIdentity identity;
    if (payload.size() >= sizeof identity) {
        std::memcpy(&identity, payload.data(), sizeof identity);
    }
    return identity;
}

Bytes encode_identity_and_topic(NodeIdentity const& identity, std::string_view topic) {
    Bytes payload(sizeof identity + topic.size());
    std::memcpy(payload.data(), &identity, sizeof identity);
    std::copy(topic.begin(), topic.end(), payload.begin() + sizeof identity);
    return payload;
}

std::string decode_topic_after_identity(Bytes const& payload) {
    if (payload.size() <= sizeof(NodeIdentity)) {
        return {};
    }
    return {payload.begin() + sizeof(NodeIdentity), payload.end()};
}

} // namespace proto::bus
