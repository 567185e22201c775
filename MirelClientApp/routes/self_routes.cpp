#include "MirelClientApp/routes/self_routes.hpp"

#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/routes/json_helpers.hpp"
#include "MirelClientApp/routes/route_replies.hpp"
#include "app/utilities/json_value.hpp"

namespace mirelclient {

using tessaron::json::Value;

namespace {

HttpResponse describe_self(SelfFacts const& facts) {
    auto const dash = facts.arch.rfind('-');
    bool const has_os = dash != std::string::npos;
    auto const uptime = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - facts.start_time);
    return HttpResponse::json(
        Value(Value::Object{{"version", facts.version},
                            {"arch", facts.arch},
                            {"cpu", facts.arch.substr(0, dash)},
                            {"os", has_os ? facts.arch.substr(dash + 1) : ""},
                            {"config_name", facts.config.as_str(config::K_CLIENT_NAME)},
                            {"registry_url", facts.config.as_str(config::K_REGISTRY_URL)},
                            {"uptime_seconds", static_cast<double>(uptime.count())}})
            .dump());
}

HttpResponse list_config(SelfFacts const& facts) {
    Value::Array fields;
    facts.config.snapshot().for_each([&fields](tessaron::config::ConfigField const& field) {
        fields.push_back(json_helpers::config_field(describe_config_field(field)));
    });
    return HttpResponse::json(Value(Value::Object{{"fields", std::move(fields)}}).dump());
}

HttpResponse set_config(SelfFacts const& facts, HttpRequest const& request) {
    std::string const name = parse_body_field(request.body, "name");
    std::string const value = parse_body_field(request.body, "value");
    if (name.empty()) {
        return HttpResponse::error("\"name\" is required", 400);
    }
    auto const [ok, error] = facts.config.set_field(name, value);
    if (!ok) {
        return HttpResponse::error(error, 400);
    }
    if (name == config::K_REGISTRY_URL.name) {
        facts.registry.set_base_url(value);
    }
    return ok_response();
}

} // namespace

void register_self_routes(WebServer& server, SelfFacts const& facts) {
    server.route("GET", "/api/self", [facts](HttpRequest const&) { return describe_self(facts); });
    server.route("GET", "/api/self/config",
                 [facts](HttpRequest const&) { return list_config(facts); });
    server.route("POST", "/api/self/config",
                 [facts](HttpRequest const& request) { return set_config(facts, request); });
}

} // namespace mirelclient
