#include "mirelserver/ClientRoutes.hpp"

#include "app/utilities/json_value.hpp"

#include <exception>
#include <optional>

namespace mirelserver {

using tessaron::json::Value;

namespace {

constexpr std::string_view K_LIST_PATH = "/api/clients";
constexpr std::string_view K_HEARTBEAT_PATH = "/api/clients/heartbeat";

Reply json_reply(Value const& value) {
    Reply reply;
    reply.content_type = "application/json";
    reply.headers.emplace_back("Cache-Control", "no-store");
    reply.body = value.dump();
    return reply;
}

std::optional<Value> parsed(std::string const& body) {
    try {
        return Value::parse(body);
    } catch (std::exception const&) {
        return std::nullopt;
    }
}

Reply list_reply(ClientTable const& clients) {
    Value::Array rows;
    for (auto const& client : clients.list(ClientTable::Clock::now())) {
        rows.emplace_back(Value::Object{{"name", client.name},
                                        {"address", client.address},
                                        {"age", static_cast<double>(client.age.count())},
                                        {"tunnel", client.tunnel != nullptr}});
    }
    return json_reply(Value::Object{{"clients", std::move(rows)}});
}

Reply heartbeat_reply(ClientTable& clients, std::string const& body) {
    auto const heartbeat = parsed(body);
    if (!heartbeat) {
        return error_reply(400, "the body is not JSON");
    }
    std::string const name = heartbeat->at("name").as_string("");
    std::string const address = heartbeat->at("address").as_string("");
    if (!is_client_name(name) || !is_client_address(address)) {
        return error_reply(400, "unusable name or address");
    }
    if (!clients.heard(name, address, ClientTable::Clock::now())) {
        return error_reply(503, "too many clients");
    }
    return json_reply(Value::Object{{"ok", true}});
}

} // namespace

bool is_client_route(std::string_view path) {
    return path == K_LIST_PATH || path == K_HEARTBEAT_PATH;
}

Reply answer_client_request(ClientTable& clients, std::string_view method, std::string_view path,
                            std::string const& body) {
    if (path == K_HEARTBEAT_PATH) {
        return method == "POST" ? heartbeat_reply(clients, body) : wrong_method_reply("POST");
    }
    return method == "GET" || method == "HEAD" ? list_reply(clients)
                                               : wrong_method_reply("GET, HEAD");
}

} // namespace mirelserver
