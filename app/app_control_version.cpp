#include "app/app_control_version.hpp"

#include "app/build_info.hpp"

#include <algorithm>
#include <limits>

namespace tessaron {
namespace {

/// Takes the digits at the beginning of the text.
template <typename Number>
Number take_number(std::string_view& text) {
    constexpr unsigned K_LARGEST = std::numeric_limits<Number>::max();
    unsigned value = 0;
    while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
        value = std::min(value * 10 + static_cast<unsigned>(text.front() - '0'), K_LARGEST);
        text.remove_prefix(1);
    }
    return static_cast<Number>(value);
}

/// Whether there was a dot, which is taken.
bool take_dot(std::string_view& text) {
    if (!text.starts_with('.')) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

} // namespace

AppControlVersion parse_semver_core(std::string_view text) {
    AppControlVersion version;
    version.major = take_number<std::uint16_t>(text);
    if (take_dot(text)) {
        version.minor = take_number<std::uint8_t>(text);
        if (take_dot(text)) {
            version.patch = take_number<std::uint8_t>(text);
        }
    }
    return version;
}

std::uint32_t pack_app_control_version(AppControlVersion const& version) {
    return std::uint32_t{version.major} << 16 | std::uint32_t{version.minor} << 8 | version.patch;
}

std::uint32_t app_control_protocol_version() {
    static std::uint32_t const s_version =
        pack_app_control_version(parse_semver_core(build_stamp().version));
    return s_version;
}

} // namespace tessaron
