#include "mirelserver/url_path.hpp"

#include <algorithm>

namespace mirelserver {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace

std::string_view path_of_target(std::string_view target) {
    if (!target.starts_with('/')) {
        auto const scheme_end = target.find("://");
        if (scheme_end == std::string_view::npos) {
            return target;
        }
        auto const path = target.find('/', scheme_end + 3);
        target = path == std::string_view::npos ? "/" : target.substr(path);
    }
    return target.substr(0, target.find('?'));
}

std::optional<std::string> percent_decode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        int const high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        int const low = high >= 0 ? hex_digit(text[i + 2]) : -1;
        if (low < 0 || high * 16 + low == 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

std::optional<std::vector<std::string>> split_path(std::string_view path) {
    if (!path.starts_with('/')) {
        return std::nullopt;
    }
    std::vector<std::string> components;
    std::size_t begin = 1;
    for (;;) {
        auto const slash = std::min(path.find('/', begin), path.size());
        auto decoded = percent_decode(path.substr(begin, slash - begin));
        if (!decoded) {
            return std::nullopt;
        }
        components.push_back(std::move(*decoded));
        if (slash == path.size()) {
            return components;
        }
        begin = slash + 1;
    }
}

bool is_plain_name(std::string_view component) {
    return !component.empty() && component.front() != '.' &&
           component.find('/') == std::string_view::npos;
}

} // namespace mirelserver
