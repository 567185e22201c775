#include "MirelClientApp/routes/database_routes.hpp"

#include "MirelClientApp/routes/diagnostics_json.hpp"
#include "MirelClientApp/routes/route_replies.hpp"

#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <string>

namespace mirelclient {

using tessaron::database::DbWriteReply;
using tessaron::json::Value;

namespace {

constexpr char K_NO_DATABASE[] = "no db bus node identifying as this package answered";

std::string const& package_of(HttpRequest const& request) {
    return request.params.at("name");
}

std::string const& table_of(HttpRequest const& request) {
    return request.params.at("table");
}

/// The number without its fraction; 0 for what is no number or below 0, and the largest one for
/// what is beyond it.
template <typename Unsigned>
Unsigned cut(Value const& value) {
    constexpr double K_BEYOND = static_cast<double>(std::numeric_limits<Unsigned>::max());
    double const number = value.as_double(0);
    if (!(number > 0)) {
        return 0;
    }
    return number < K_BEYOND ? static_cast<Unsigned>(number) : std::numeric_limits<Unsigned>::max();
}

template <typename Reply>
HttpResponse shaped(std::optional<Reply> const& reply, Value (*shape)(Reply const&)) {
    return reply ? HttpResponse::json(shape(*reply).dump())
                 : HttpResponse::error(K_NO_DATABASE, 404);
}

HttpResponse written(std::optional<DbWriteReply> const& reply) {
    return reply && !reply->ok ? HttpResponse::error(reply->error, 400)
                               : shaped(reply, json_helpers::db_write_result);
}

/// What `write` does with the body; without one that can be read, a 400 that says what was
/// expected.
template <typename Write>
HttpResponse written_from_body(HttpRequest const& request, char const* expected,
                               Write const& write) {
    Value body;
    try {
        body = Value::parse(request.body);
    } catch (std::exception const& error) {
        return HttpResponse::error(std::string("expected ") + expected + ": " + error.what(), 400);
    }
    return written(write(body));
}

HttpResponse edit_cell(DbBrowserClient& databases, HttpRequest const& request) {
    return written_from_body(
        request, R"({"row_index":N,"column_index":N,"value":"..."})", [&](Value const& body) {
            return databases.edit_cell(
                package_of(request), table_of(request), cut<std::uint64_t>(body.at("row_index")),
                cut<std::uint32_t>(body.at("column_index")), body.at("value").as_string(""));
        });
}

HttpResponse delete_row(DbBrowserClient& databases, HttpRequest const& request) {
    return written_from_body(request, R"({"row_index":N})", [&](Value const& body) {
        return databases.delete_row(package_of(request), table_of(request),
                                    cut<std::uint64_t>(body.at("row_index")));
    });
}

} // namespace

void register_database_routes(WebServer& server, DbBrowserClient& databases) {
    server.route("GET", "/api/packages/{name}/db", [&](HttpRequest const& request) {
        return shaped(databases.list_tables(package_of(request)), json_helpers::db_info);
    });
    server.route("GET", "/api/packages/{name}/db/{table}", [&](HttpRequest const& request) {
        return shaped(databases.read_rows(package_of(request), table_of(request),
                                          query_number(request, "from", 1),
                                          query_number(request, "to", 0)),
                      json_helpers::db_table_read);
    });
    server.route("POST", "/api/packages/{name}/db/{table}/cell",
                 [&](HttpRequest const& request) { return edit_cell(databases, request); });
    server.route("POST", "/api/packages/{name}/db/{table}/delete-row",
                 [&](HttpRequest const& request) { return delete_row(databases, request); });
    server.route("POST", "/api/packages/{name}/db/{table}/clear", [&](HttpRequest const& request) {
        return written(databases.clear_table(package_of(request), table_of(request)));
    });
}

} // namespace mirelclient
