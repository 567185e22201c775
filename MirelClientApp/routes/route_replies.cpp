#include "MirelClientApp/routes/route_replies.hpp"

#include "app/utilities/json_value.hpp"

#include <cstdlib>
#include <exception>

namespace mirelclient {

using tessaron::json::Value;

HttpResponse pkgmgr_response(tessaron::PackageManagerReply const& reply) {
    if (!reply.ok) {
        return HttpResponse::error(reply.error, 400);
    }
    return HttpResponse::json(Value(Value::Object{{"ok", true}, {"body", reply.data}}).dump());
}

HttpResponse manifest_response(tessaron::PackageManagerReply const& reply) {
    if (!reply.ok) {
        return HttpResponse::error(reply.error, 404);
    }
    return HttpResponse::json(reply.data.dump());
}

HttpResponse ok_response() {
    return HttpResponse::json(Value(Value::Object{{"ok", true}}).dump());
}

std::string parse_body_field(std::string const& body, std::string const& key) {
    if (body.empty()) {
        return "";
    }
    try {
        return Value::parse(body).at(key).as_string("");
    } catch (std::exception const&) {
        return "";
    }
}

std::uint64_t query_number(HttpRequest const& request, std::string const& key,
                           std::uint64_t fallback) {
    auto const text = request.query.find(key);
    return text == request.query.end() ? fallback
                                       : std::strtoull(text->second.c_str(), nullptr, 10);
}

} // namespace mirelclient
