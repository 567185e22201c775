#include "MirelClientApp/routes/asset_routes.hpp"

#include "libraries/assets/assets.hpp"

#include <string>

namespace mirelclient {

namespace {

HttpResponse static_file(std::string const& path) {
    auto const file = find_static_file(path);
    if (!file) {
        return HttpResponse::error("not found", 404);
    }
    return HttpResponse{.content_type = file->content_type, .body = std::string(file->content)};
}

} // namespace

void register_asset_routes(WebServer& server) {
    server.route("GET", "/", [](HttpRequest const&) {
        return HttpResponse::html(std::string(k_dashboard_html));
    });
    for (std::string const path :
         {"/static/xterm/xterm.mjs", "/static/xterm/addon-fit.mjs", "/static/xterm/xterm.css"}) {
        server.route("GET", path, [path](HttpRequest const&) { return static_file(path); });
    }
    for (std::string const folder : {"/static/novnc/core/", "/static/novnc/vendor/"}) {
        server.route("GET", folder + "{path...}", [folder](HttpRequest const& request) {
            return static_file(folder + request.params.at("path"));
        });
    }
}

} // namespace mirelclient
