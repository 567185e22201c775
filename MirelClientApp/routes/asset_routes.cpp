#include "MirelClientApp/routes/asset_routes.hpp"

#include "MirelClientApp/assets/assets.hpp"

#include <algorithm>
#include <string>
#include <string_view>

namespace mirelclient {

namespace {

constexpr char const* K_JAVASCRIPT = "text/javascript; charset=utf-8";
constexpr char const* K_STYLE_SHEET = "text/css; charset=utf-8";

HttpResponse answer(std::string_view content, char const* content_type) {
    return HttpResponse{.content_type = content_type, .body = std::string(content)};
}

/// One of a table's modules; the request's `path` is its name.
HttpResponse module_of(std::span<Asset const> files, HttpRequest const& request) {
    auto const found = std::ranges::find(files, request.params.at("path"), &Asset::path);
    if (found == files.end()) {
        return HttpResponse::error("not found", 404);
    }
    return answer(found->content, K_JAVASCRIPT);
}

} // namespace

void register_asset_routes(WebServer& server) {
    auto const one = [&server](char const* path, std::string_view content, char const* type) {
        server.route("GET", path,
                     [content, type](HttpRequest const&) { return answer(content, type); });
    };
    auto const all = [&server](char const* pattern, std::span<Asset const> files) {
        server.route("GET", pattern,
                     [files](HttpRequest const& request) { return module_of(files, request); });
    };

    server.route("GET", "/", [](HttpRequest const&) {
        return HttpResponse::html(std::string(k_dashboard_html));
    });
    one("/static/xterm/xterm.mjs", k_xterm_mjs, K_JAVASCRIPT);
    one("/static/xterm/addon-fit.mjs", k_addon_fit_mjs, K_JAVASCRIPT);
    one("/static/xterm/xterm.css", k_xterm_css, K_STYLE_SHEET);
    all("/static/novnc/core/{path...}", k_novnc_files);
    all("/static/novnc/vendor/{path...}", k_novnc_vendor_files);
}

} // namespace mirelclient
