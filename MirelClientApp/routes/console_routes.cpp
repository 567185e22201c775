#include "MirelClientApp/routes/console_routes.hpp"

#include "MirelClientApp/routes/route_replies.hpp"
#include "app/utilities/json_value.hpp"

#include <utility>

namespace mirelclient {

using tessaron::json::Value;

namespace {

constexpr int K_COMMAND_LIMIT_SECONDS = 30;

HttpResponse run_command(Console const& console, HttpRequest const& request) {
    std::string const command = parse_body_field(request.body, "command");
    if (command.empty()) {
        return HttpResponse::error("\"command\" is required", 400);
    }
    ConsoleExecutor::Result result = console.exec(command, K_COMMAND_LIMIT_SECONDS);
    return HttpResponse::json(Value(Value::Object{{"exit_code", result.exit_code},
                                                  {"output", std::move(result.output)},
                                                  {"timed_out", result.timed_out}})
                                  .dump());
}

} // namespace

void register_console_routes(WebServer& server, Console& console) {
    server.route("POST", "/api/console/exec",
                 [&console](HttpRequest const& request) { return run_command(console, request); });
    server.route_ws("GET", "/api/console/ws", [&console](int fd, HttpRequest const& request) {
        console.serve_terminal(fd, request);
    });
}

} // namespace mirelclient
