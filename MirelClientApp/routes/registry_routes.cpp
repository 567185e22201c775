#include "MirelClientApp/routes/registry_routes.hpp"

#include <optional>
#include <string>

namespace mirelclient {

namespace {

HttpResponse passed_through(std::optional<std::string> body) {
    if (!body) {
        return HttpResponse::error("couldn't reach the registry", 502);
    }
    return HttpResponse::json(std::move(*body));
}

} // namespace

void register_registry_routes(WebServer& server, RegistryClient const& registry) {
    server.route("GET", "/api/registry/packages", [&registry](HttpRequest const&) {
        return passed_through(registry.list_packages());
    });
    // Before the route of a channel, so that "channels" is never taken for a channel's name.
    server.route("GET", "/api/registry/packages/{name}/channels",
                 [&registry](HttpRequest const& request) {
                     return passed_through(registry.list_channels(request.params.at("name")));
                 });
    server.route("GET", "/api/registry/packages/{name}/{channel}",
                 [&registry](HttpRequest const& request) {
                     return passed_through(registry.list_versions(request.params.at("name"),
                                                                  request.params.at("channel")));
                 });
}

} // namespace mirelclient
