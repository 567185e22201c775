#include "libraries/assets/assets.hpp"

#include <algorithm>

namespace mirelclient {

namespace {

constexpr char const* K_JAVASCRIPT = "text/javascript; charset=utf-8";
constexpr char const* K_STYLE_SHEET = "text/css; charset=utf-8";

/// One of a table's modules, if the path lies in the folder that the table stands for.
std::optional<StaticFile> module_of(std::span<Asset const> files, std::string_view folder,
                                    std::string_view path) {
    if (!path.starts_with(folder)) {
        return std::nullopt;
    }
    auto const found = std::ranges::find(files, path.substr(folder.size()), &Asset::path);
    return found == files.end() ? std::nullopt
                                : std::optional(StaticFile{found->content, K_JAVASCRIPT});
}

} // namespace

std::optional<StaticFile> find_static_file(std::string_view path) {
    if (path == "/static/xterm/xterm.mjs") {
        return StaticFile{k_xterm_mjs, K_JAVASCRIPT};
    }
    if (path == "/static/xterm/addon-fit.mjs") {
        return StaticFile{k_addon_fit_mjs, K_JAVASCRIPT};
    }
    if (path == "/static/xterm/xterm.css") {
        return StaticFile{k_xterm_css, K_STYLE_SHEET};
    }
    if (auto file = module_of(k_novnc_files, "/static/novnc/core/", path)) {
        return file;
    }
    return module_of(k_novnc_vendor_files, "/static/novnc/vendor/", path);
}

} // namespace mirelclient
