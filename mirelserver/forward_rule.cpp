#include "mirelserver/forward_rule.hpp"

#include "mirelserver/url_path.hpp"

namespace mirelserver {

namespace {

constexpr std::string_view K_CLIENTS_PREFIX = "/api/clients/";
constexpr std::string_view K_PROXY = "/proxy";
constexpr std::string_view K_COOKIE_NAME = "mirel_client";

/// The target as a path with its query: without the "scheme://authority" of the absolute form.
std::string_view path_and_query(std::string_view target) {
    auto const path = path_of_target(target);
    return path.empty() || path.data() < target.data() ||
                   path.data() >= target.data() + target.size()
               ? path
               : target.substr(static_cast<std::size_t>(path.data() - target.data()));
}

std::optional<Forward> prefixed(std::string_view method, std::string_view target) {
    if (!target.starts_with(K_CLIENTS_PREFIX)) {
        return std::nullopt;
    }
    target.remove_prefix(K_CLIENTS_PREFIX.size());
    auto const name_end = target.find('/');
    if (name_end == std::string_view::npos || !target.substr(name_end).starts_with(K_PROXY)) {
        return std::nullopt;
    }
    auto const rest = target.substr(name_end + K_PROXY.size());
    if (!rest.empty() && rest[0] != '/' && rest[0] != '?') {
        return std::nullopt;
    }
    auto client = percent_decode(target.substr(0, name_end));
    if (!client) {
        return std::nullopt;
    }
    std::string const root = rest.starts_with('/') ? "" : "/";
    Forward forward{std::move(*client), root + std::string(rest), false};
    forward.is_page = method == "GET" && path_of_target(forward.target) == "/";
    return forward;
}

std::optional<std::string> remembered_client(std::string_view cookies) {
    while (!cookies.empty()) {
        auto const end = std::min(cookies.find(';'), cookies.size());
        auto cookie = cookies.substr(0, end);
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        if (cookie.starts_with(K_COOKIE_NAME) &&
            cookie.substr(K_COOKIE_NAME.size()).starts_with('=')) {
            return percent_decode(cookie.substr(K_COOKIE_NAME.size() + 1));
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<Forward> forward_of(std::string_view method, std::string_view target,
                                  std::string_view cookies) {
    target = path_and_query(target);
    if (auto forward = prefixed(method, target)) {
        return forward;
    }
    if (method != "GET" || !is_terminal_of_a_page(path_of_target(target))) {
        return std::nullopt;
    }
    auto client = remembered_client(cookies);
    if (!client) {
        return std::nullopt;
    }
    return Forward{std::move(*client), std::string(target), false};
}

bool is_terminal_of_a_page(std::string_view path) {
    return path == "/api/console/ws";
}

std::string page_cookie(std::string_view client) {
    constexpr std::string_view K_DIGITS = "0123456789ABCDEF";
    std::string cookie = std::string(K_COOKIE_NAME) + "=";
    for (char const c : client) {
        bool const is_plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                              (c >= 'A' && c <= 'Z') || c == '-' || c == '_' || c == '.';
        if (is_plain) {
            cookie += c;
        } else {
            cookie += '%';
            cookie += K_DIGITS[static_cast<unsigned char>(c) >> 4];
            cookie += K_DIGITS[static_cast<unsigned char>(c) & 15];
        }
    }
    return cookie + "; Path=/; HttpOnly; SameSite=Lax";
}

} // namespace mirelserver
