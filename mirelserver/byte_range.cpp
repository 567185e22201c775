#include "mirelserver/byte_range.hpp"

#include <algorithm>
#include <charconv>

namespace mirelserver {

namespace {

constexpr std::string_view K_UNIT = "bytes=";

std::optional<std::uint64_t> parse_number(std::string_view text) {
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

RangeRequest last_bytes(std::uint64_t count, std::uint64_t size) {
    std::uint64_t const length = std::min(count, size);
    return {length > 0, {size - length, length}};
}

} // namespace

std::optional<RangeRequest> parse_range(std::string_view header, std::uint64_t size) {
    if (!header.starts_with(K_UNIT)) {
        return std::nullopt;
    }
    header.remove_prefix(K_UNIT.size());
    auto const dash = header.find('-');
    if (dash == std::string_view::npos) {
        return std::nullopt;
    }
    auto const last_text = header.substr(dash + 1);
    auto const last = parse_number(last_text);
    if (dash == 0) {
        return last ? std::optional(last_bytes(*last, size)) : std::nullopt;
    }
    auto const first = parse_number(header.substr(0, dash));
    if (!first || (!last && !last_text.empty()) || (last && *last < *first)) {
        return std::nullopt;
    }
    if (*first >= size) {
        return RangeRequest{false, {}};
    }
    std::uint64_t const end = last ? std::min(*last, size - 1) : size - 1;
    return RangeRequest{true, {*first, end - *first + 1}};
}

} // namespace mirelserver
