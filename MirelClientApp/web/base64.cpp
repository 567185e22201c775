#include "MirelClientApp/web/base64.hpp"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace mirelclient::detail {

namespace {

constexpr std::string_view K_ALPHABET =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string base64_encode(void const* data, std::size_t size) {
    auto const* const bytes = static_cast<std::uint8_t const*>(data);
    std::string text;
    text.reserve((size + 2) / 3 * 4);
    for (std::size_t at = 0; at < size; at += 3) {
        std::size_t const count = std::min<std::size_t>(3, size - at);
        std::uint32_t group = std::uint32_t{bytes[at]} << 16;
        group |= count > 1 ? std::uint32_t{bytes[at + 1]} << 8 : 0;
        group |= count > 2 ? std::uint32_t{bytes[at + 2]} : 0;
        for (std::size_t digit = 0; digit < 4; ++digit) {
            text += digit <= count ? K_ALPHABET[group >> (18 - 6 * digit) & 63] : '=';
        }
    }
    return text;
}

} // namespace mirelclient::detail
