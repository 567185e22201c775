#include "MirelClientApp/updates/semver.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

namespace mirelclient {

namespace {

using Number = std::int32_t;

// A decimal number as scanf's %d reads it: blanks and a sign may stand before the digits. What is
// out of range is consumed all the same. Takes the number off `text`; on nothing `text` is spoilt.
std::optional<Number> take_number(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    bool const has_plus = text.starts_with('+');
    if (has_plus) {
        text.remove_prefix(1); // from_chars knows the minus sign alone
    }
    if (text.empty() || (has_plus && text.front() == '-')) {
        return std::nullopt;
    }
    bool const negative = text.front() == '-';
    Number number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::invalid_argument) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (error == std::errc::result_out_of_range) {
        return negative ? std::numeric_limits<Number>::min() : std::numeric_limits<Number>::max();
    }
    return number;
}

bool take_dot(std::string_view& text) {
    if (!text.starts_with('.')) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// Fills the numbers as far as they are there; true if `text` had all three.
bool take_core(std::string_view& text, SemverKey& key) {
    for (Number* const number : {&key.major, &key.minor, &key.patch}) {
        if (number != &key.major && !take_dot(text)) {
            return false;
        }
        auto const taken = take_number(text);
        if (!taken) {
            return false;
        }
        *number = *taken;
    }
    return true;
}

int compare_numbers(Number a, Number b) {
    return a < b ? -1 : (a > b ? 1 : 0);
}

} // namespace

SemverKey parse_semver_key(std::string const& text) {
    SemverKey key;
    std::string_view rest = text;
    if (!take_core(rest, key)) {
        return key;
    }
    constexpr std::string_view K_DEV_MARK = "dev.";
    if (auto const found = rest.find(K_DEV_MARK); found != std::string_view::npos) {
        rest.remove_prefix(found + K_DEV_MARK.size());
        key.is_dev = true;
        key.dev_number = take_number(rest).value_or(0);
    }
    return key;
}

int compare_semver(SemverKey const& a, SemverKey const& b) {
    for (auto const number : {&SemverKey::major, &SemverKey::minor, &SemverKey::patch}) {
        if (int const order = compare_numbers(a.*number, b.*number); order != 0) {
            return order;
        }
    }
    if (a.is_dev != b.is_dev) {
        return a.is_dev ? -1 : 1;
    }
    return a.is_dev ? compare_numbers(a.dev_number, b.dev_number) : 0;
}

int compare_semver(std::string const& a, std::string const& b) {
    return compare_semver(parse_semver_key(a), parse_semver_key(b));
}

bool is_semver_newer(std::string const& a, std::string const& b) {
    return compare_semver(a, b) > 0;
}

} // namespace mirelclient
