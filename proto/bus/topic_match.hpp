#pragma once

#include <cstdint>
#include <string_view>

namespace proto::bus {

/// FNV-1a over the bytes up to the terminator.
constexpr std::uint32_t fnv1a_hash32(char const* text, std::uint32_t seed) {
    std::uint32_t hash = seed;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<std::uint8_t>(*text)) * 16777619U;
    }
    return hash;
}

/// The topic's id on the wire. Two topics may share one, and one may be 0, which says "no topic".
constexpr std::uint16_t topic_hash(char const* topic) {
    std::uint32_t const hash = fnv1a_hash32(topic, 0x811C9DC5U);
    return static_cast<std::uint16_t>(hash ^ hash >> 16);
}

/// "*" stands for any run of bytes, none and dots among them; every other byte for itself.
/// Takes no memory; at worst the product of both lengths in steps.
bool glob_match(std::string_view pattern, std::string_view text);

} // namespace proto::bus
