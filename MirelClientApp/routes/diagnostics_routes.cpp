#include "MirelClientApp/routes/diagnostics_routes.hpp"

#include "MirelClientApp/routes/diagnostics_json.hpp"
#include "MirelClientApp/routes/json_helpers.hpp"
#include "MirelClientApp/routes/route_replies.hpp"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace mirelclient {

using tessaron::AppControlClient;
using tessaron::json::Value;

namespace {

constexpr std::chrono::seconds K_TIMEOUT{2};
constexpr char K_NO_REPLY[] = "package not discovered on the bus, or it didn't reply";

HttpResponse object_response(Value::Object members) {
    return HttpResponse::json(Value(std::move(members)).dump());
}

/// What the package's application answers to `query`, as `shape` makes a response of it; 404
/// without an answer.
template <typename Query, typename Shape>
HttpResponse answer(DiagnosticsClient& diagnostics, HttpRequest const& request, Query const& query,
                    Shape const& shape) {
    auto const reply = diagnostics.with_package(request.params.at("name"), query);
    return reply ? shape(*reply) : HttpResponse::error(K_NO_REPLY, 404);
}

template <typename Entries, typename Shape>
Value array_of(Entries const& entries, Shape const& shape) {
    Value::Array array;
    for (auto const& entry : entries) {
        array.push_back(shape(entry));
    }
    return array;
}

/// A history under `key`: without an answer an empty one, and whether the package is on the bus at
/// all is told beside it.
template <typename Query, typename Shape>
HttpResponse history(DiagnosticsClient& diagnostics, HttpRequest const& request, char const* key,
                     Query const& query, Shape const& shape) {
    std::string const& package = request.params.at("name");
    bool const is_discovered = diagnostics.is_discovered(package);
    auto const reply = diagnostics.with_package(package, query);
    return object_response(
        {{"discovered", is_discovered},
         {key, reply ? array_of(reply->records, shape) : Value(Value::Array())}});
}

HttpResponse crash_incident(DiagnosticsClient& diagnostics, HttpRequest const& request) {
    long const pid = std::strtol(request.params.at("pid").c_str(), nullptr, 10);
    long long const ts = std::strtoll(request.params.at("ts").c_str(), nullptr, 10);
    return answer(
        diagnostics, request,
        [&](AppControlClient& client) { return client.crash_incident(pid, ts, K_TIMEOUT); },
        [](tessaron::CrashIncidentReply const& reply) {
            return object_response({{"lines", array_of(reply.lines, [](std::string const& line) {
                                         return Value(line);
                                     })}});
        });
}

HttpResponse read_log(DiagnosticsClient& diagnostics, HttpRequest const& request) {
    std::uint64_t const from = query_number(request, "from", 1);
    std::uint64_t const to = query_number(request, "to", from);
    auto const generation = request.query.contains("generation")
                                ? std::optional(query_number(request, "generation", 0))
                                : std::nullopt;
    return answer(
        diagnostics, request,
        [&](AppControlClient& client) { return client.log_read(from, to, K_TIMEOUT, generation); },
        [](tessaron::LogReadReply const& reply) {
            return HttpResponse::json(json_helpers::log_read(reply).dump());
        });
}

HttpResponse set_config(DiagnosticsClient& diagnostics, HttpRequest const& request) {
    std::string const name = parse_body_field(request.body, "name");
    std::string const value = parse_body_field(request.body, "value");
    if (name.empty()) {
        return HttpResponse::error("\"name\" is required", 400);
    }
    return answer(
        diagnostics, request,
        [&](AppControlClient& client) { return client.config_set(name, value, K_TIMEOUT); },
        [](tessaron::config::ConfigSetReply const& reply) {
            return reply.ok
                       ? ok_response()
                       : HttpResponse::error("config_set failed - check the field name/value", 400);
        });
}

} // namespace

void register_diagnostics_routes(WebServer& server, DiagnosticsClient& diagnostics) {
    server.route("GET", "/api/packages/{name}/sessions", [&](HttpRequest const& request) {
        return history(
            diagnostics, request, "sessions",
            [](AppControlClient& client) { return client.session_history(0, K_TIMEOUT); },
            json_helpers::session_record);
    });
    server.route("GET", "/api/packages/{name}/crashes", [&](HttpRequest const& request) {
        return history(
            diagnostics, request, "crashes",
            [](AppControlClient& client) { return client.crash_history(0, 0, K_TIMEOUT); },
            json_helpers::crash_record);
    });
    server.route("GET", "/api/packages/{name}/crashes/{pid}/{ts}",
                 [&](HttpRequest const& request) { return crash_incident(diagnostics, request); });
    server.route("GET", "/api/packages/{name}/log/info", [&](HttpRequest const& request) {
        return answer(
            diagnostics, request,
            [](AppControlClient& client) { return client.log_info(K_TIMEOUT); },
            [](tessaron::LogInfoReply const& reply) {
                return HttpResponse::json(json_helpers::log_info(reply).dump());
            });
    });
    server.route("GET", "/api/packages/{name}/log",
                 [&](HttpRequest const& request) { return read_log(diagnostics, request); });
    server.route("GET", "/api/packages/{name}/config", [&](HttpRequest const& request) {
        return answer(
            diagnostics, request,
            [](AppControlClient& client) { return client.config_list(K_TIMEOUT); },
            [](tessaron::config::ConfigListReply const& reply) {
                return object_response(
                    {{"fields", array_of(reply.fields, json_helpers::config_field)}});
            });
    });
    server.route("POST", "/api/packages/{name}/config",
                 [&](HttpRequest const& request) { return set_config(diagnostics, request); });
}

} // namespace mirelclient
