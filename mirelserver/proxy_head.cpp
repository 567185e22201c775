#include "mirelserver/proxy_head.hpp"

#include <array>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/rfc7230.hpp>

namespace mirelserver {

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

bool concerns_one_connection(http::field field) {
    switch (field) {
    case http::field::connection:
    case http::field::expect:
    case http::field::host:
    case http::field::keep_alive:
    case http::field::proxy_connection:
    case http::field::te:
    case http::field::trailer:
    case http::field::upgrade:
        return true;
    default:
        return false;
    }
}

bool names(std::string_view line, std::string_view header) {
    return line.size() > header.size() && line[header.size()] == ':' &&
           beast::iequals(beast::string_view(line.data(), header.size()),
                          beast::string_view(header.data(), header.size()));
}

} // namespace

bool asks_for_upgrade(RequestHeader const& request) {
    return request.count(http::field::upgrade) != 0 &&
           http::token_list(request[http::field::connection]).exists("upgrade");
}

std::string forwarded_head(RequestHeader const& request, Forward const& forward,
                           std::string_view host) {
    std::string head = request.method_string().to_string() + " " + forward.target + " HTTP/1.1\r\n";
    head.append("Host: ").append(host).append("\r\n");
    for (auto const& field : request) {
        if (!concerns_one_connection(field.name())) {
            head += field.name_string().to_string() + ": " + field.value().to_string() + "\r\n";
        }
    }
    if (asks_for_upgrade(request)) {
        head += "Connection: Upgrade\r\nUpgrade: " + request[http::field::upgrade].to_string();
    } else {
        head += "Connection: close";
    }
    return head + "\r\n\r\n";
}

std::string answered_head(std::string_view head, std::string_view set_cookie) {
    if (!head.starts_with("HTTP/1.")) {
        return {};
    }
    std::string edited;
    while (!head.empty()) {
        auto const end = head.find("\r\n");
        if (end == std::string_view::npos) {
            return {};
        }
        auto const line = head.substr(0, end);
        head.remove_prefix(end + 2);
        if (line.empty()) {
            break;
        }
        if (!names(line, "connection") && !names(line, "keep-alive")) {
            edited.append(line).append("\r\n");
        }
    }
    if (!set_cookie.empty()) {
        edited.append("Set-Cookie: ").append(set_cookie).append("\r\n");
    }
    return edited + "Connection: close\r\n\r\n";
}

} // namespace mirelserver
