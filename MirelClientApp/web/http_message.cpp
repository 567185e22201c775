#include "MirelClientApp/web/http_message.hpp"

#include <utility>

namespace mirelclient {

HttpResponse HttpResponse::html(std::string body, int status) {
    return {status, "text/html; charset=utf-8", std::move(body)};
}

HttpResponse HttpResponse::json(std::string body, int status) {
    return {status, "application/json", std::move(body)};
}

HttpResponse HttpResponse::error(std::string const& message, int status) {
    return json("{\"error\":\"" + json_escape(message) + "\"}", status);
}

HttpResponse HttpResponse::not_found() {
    return error("not found", 404);
}

std::string HttpResponse::json_escape(std::string const& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char const c : text) {
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

} // namespace mirelclient
