#pragma once

#include <cstdint>
#include <string_view>

namespace tessaron {

/// The leading numbers of a version text.
struct AppControlVersion {
    std::uint16_t major = 0;
    std::uint8_t minor = 0;
    std::uint8_t patch = 0;

    bool operator==(AppControlVersion const&) const = default;
};

/// "major.minor.patch" and whatever follows. A number too large for its place is the largest that
/// fits; one that is not there is 0.
AppControlVersion parse_semver_core(std::string_view text);

/// In order: a later version is a larger number.
std::uint32_t pack_app_control_version(AppControlVersion const& version);

/// Of this build: what the application's node on the bus says of itself.
std::uint32_t app_control_protocol_version();

} // namespace tessaron
