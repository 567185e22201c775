#include "MirelClientApp/routes/package_routes.hpp"

#include "MirelClientApp/routes/json_helpers.hpp"
#include "MirelClientApp/routes/route_replies.hpp"
#include "app/utilities/json_value.hpp"

#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace mirelclient {

using tessaron::PackageManagerReply;
using tessaron::PackageManagerService;
using tessaron::json::Value;

namespace {

HttpResponse update(PackageUpdater& updater, HttpRequest const& request) {
    PackageUpdater::Request const wanted{.name = request.params.at("name"),
                                         .version = parse_body_field(request.body, "version"),
                                         .arch = parse_body_field(request.body, "arch"),
                                         .channel = parse_body_field(request.body, "channel")};
    if (wanted.version.empty() || wanted.arch.empty()) {
        return HttpResponse::error("\"version\" and \"arch\" are required", 400);
    }
    updater.run_update_async(wanted);
    return ok_response();
}

HttpResponse set_launch_args(PackageManagerService& packages, HttpRequest const& request) {
    Value body;
    try {
        body = Value::parse(request.body);
    } catch (std::exception const& error) {
        return HttpResponse::error(std::string("expected {\"args\":[...]}: ") + error.what(), 400);
    }
    std::vector<std::string> args;
    for (Value const& arg : body.at("args").as_array()) {
        args.push_back(arg.as_string(""));
    }
    return pkgmgr_response(packages.set_launch_args(request.params.at("name"), std::move(args)));
}

} // namespace

void register_package_routes(WebServer& server, PackageManagerService& packages,
                             PackageUpdater& updater) {
    using Operation = PackageManagerReply (PackageManagerService::*)(std::string const&);
    auto const post = [&](std::string const& action, Operation operation) {
        server.route("POST", "/api/packages/{name}/" + action,
                     [&packages, operation](HttpRequest const& request) {
                         return pkgmgr_response((packages.*operation)(request.params.at("name")));
                     });
    };

    server.route("GET", "/api/packages", [&packages](HttpRequest const&) {
        return pkgmgr_response(packages.list_installed());
    });
    server.route("GET", "/api/packages/{name}/manifest", [&packages](HttpRequest const& request) {
        return manifest_response(packages.manifest(request.params.at("name")));
    });
    post("start", &PackageManagerService::start);
    post("stop", &PackageManagerService::stop);
    post("restart", &PackageManagerService::restart);
    post("uninstall", &PackageManagerService::uninstall);
    server.route("POST", "/api/packages/{name}/update",
                 [&updater](HttpRequest const& request) { return update(updater, request); });
    server.route("GET", "/api/packages/{name}/update-status",
                 [&updater](HttpRequest const& request) {
                     UpdateStatus const status = updater.status(request.params.at("name"));
                     return HttpResponse::json(json_helpers::update_status(status).dump());
                 });
    server.route(
        "POST", "/api/packages/{name}/launch-args",
        [&packages](HttpRequest const& request) { return set_launch_args(packages, request); });
}

} // namespace mirelclient
