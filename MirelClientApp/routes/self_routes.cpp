#include "MirelClientApp/routes/self_routes.hpp"

#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/routes/json_helpers.hpp"
#include "MirelClientApp/routes/route_replies.hpp"
#include "app/utilities/json_value.hpp"

namespace mirelclient {

using tessaron::json::Value;

namespace {

HttpResponse describe_self(SelfServices const& self) {
    std::string const& arch = self.updater.arch();
    auto const dash = arch.rfind('-');
    bool const has_os = dash != std::string::npos;
    auto const uptime = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - self.start_time);
    return HttpResponse::json(
        Value(Value::Object{{"version", self.updater.current_version()},
                            {"arch", arch},
                            {"cpu", arch.substr(0, dash)},
                            {"os", has_os ? arch.substr(dash + 1) : ""},
                            {"config_name", self.config.as_str(config::K_CLIENT_NAME)},
                            {"registry_url", self.config.as_str(config::K_REGISTRY_URL)},
                            {"uptime_seconds", static_cast<double>(uptime.count())}})
            .dump());
}

HttpResponse list_config(SelfServices const& self) {
    Value::Array fields;
    self.config.snapshot().for_each([&fields](tessaron::config::ConfigField const& field) {
        fields.push_back(json_helpers::config_field(describe_config_field(field)));
    });
    return HttpResponse::json(Value(Value::Object{{"fields", std::move(fields)}}).dump());
}

HttpResponse set_config(SelfServices const& self, HttpRequest const& request) {
    std::string const name = parse_body_field(request.body, "name");
    std::string const value = parse_body_field(request.body, "value");
    if (name.empty()) {
        return HttpResponse::error("\"name\" is required", 400);
    }
    auto const [ok, error] = self.config.set_field(name, value);
    if (!ok) {
        return HttpResponse::error(error, 400);
    }
    if (name == config::K_REGISTRY_URL.name) {
        self.registry.set_base_url(value);
    }
    return ok_response();
}

HttpResponse update_self(SelfUpdater& updater, HttpRequest const& request) {
    std::string version = parse_body_field(request.body, "version");
    if (version.empty()) {
        SelfUpdater::CheckResult const found = updater.check();
        if (!found.update_available) {
            return HttpResponse::error(found.error.empty() ? "no update available" : found.error,
                                       400);
        }
        version = found.latest_version;
    }
    if (ErrorText const error = updater.update_to(version)) {
        return HttpResponse::error(*error, 500);
    }
    return ok_response();
}

} // namespace

void register_self_routes(WebServer& server, SelfServices const& self) {
    server.route("GET", "/api/self", [self](HttpRequest const&) { return describe_self(self); });
    server.route("GET", "/api/self/config",
                 [self](HttpRequest const&) { return list_config(self); });
    server.route("POST", "/api/self/config",
                 [self](HttpRequest const& request) { return set_config(self, request); });
    server.route("POST", "/api/self/check-update", [self](HttpRequest const&) {
        return HttpResponse::json(json_helpers::check_result(self.updater.check()).dump());
    });
    server.route("POST", "/api/self/update",
                 [self](HttpRequest const& request) { return update_self(self.updater, request); });
}

} // namespace mirelclient
