#include "MirelClientApp/web/websocket_handshake.hpp"

#include "MirelClientApp/web/base64.hpp"
#include "MirelClientApp/web/sha1.hpp"
#include "MirelClientApp/web/socket_io.hpp"
#include "MirelClientApp/web/url_text.hpp"

#include <algorithm>
#include <string>

namespace mirelclient {

namespace {

constexpr std::string_view K_GUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr std::string_view K_BLANKS = " \t";

/// Empty if there is no such header.
std::string_view header(HttpRequest const& request, std::string const& name) {
    auto const found = request.headers.find(name);
    return found != request.headers.end() ? std::string_view(found->second) : std::string_view();
}

std::string accept_value(std::string_view key) {
    detail::Sha1 sha1;
    sha1.update(key.data(), key.size());
    sha1.update(K_GUID.data(), K_GUID.size());
    auto const digest = sha1.digest();
    return detail::base64_encode(digest.data(), digest.size());
}

std::string_view trimmed(std::string_view text) {
    std::size_t const begin = text.find_first_not_of(K_BLANKS);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(K_BLANKS) - begin + 1);
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

} // namespace

bool ws_handshake(int fd, HttpRequest const& request) {
    std::string_view const key = header(request, "sec-websocket-key");
    if (request.method != "GET" || key.empty() ||
        !detail::header_contains_token(header(request, "connection"), "upgrade") ||
        !detail::header_contains_token(header(request, "upgrade"), "websocket")) {
        return false;
    }
    return send_all(fd, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                        "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
                            accept_value(key) + "\r\n\r\n");
}

bool detail::header_contains_token(std::string_view header_value, std::string_view token) {
    std::vector<std::string_view> const pieces = split(header_value, ',');
    return std::any_of(pieces.begin(), pieces.end(), [token](std::string_view untrimmed) {
        std::string_view const piece = trimmed(untrimmed);
        return !piece.empty() &&
               std::equal(piece.begin(), piece.end(), token.begin(), token.end(),
                          [](char left, char right) { return lower(left) == lower(right); });
    });
}

} // namespace mirelclient
