#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace mirelclient {

/// A front-end file that the program carries as constant text, so that nothing is read from disk.
struct Asset {
    std::string_view path; ///< relative to the folder that its table stands for
    std::string_view content;
};

// All of it is made by the build: the page of the sources in MirelClientApp/dashboard, the rest of
// the packages that the lock file there pins. Immutable, so safe from any thread.

/// The dashboard: one page with its style and script in it.
extern std::string_view const k_dashboard_html;

extern std::string_view const k_xterm_mjs;
extern std::string_view const k_addon_fit_mjs;
extern std::string_view const k_xterm_css;

/// noVNC's folder "core", in ascending order of the paths ("rfb.js", "util/logging.js").
extern std::span<Asset const> const k_novnc_files;
/// Its folder "vendor", whose modules those of "core" import.
extern std::span<Asset const> const k_novnc_vendor_files;

struct StaticFile {
    std::string_view content;
    char const* content_type;
};

/// What the page loads by an absolute path, by that path: "/static/xterm/xterm.css". Compares byte
/// for byte, so no path leads elsewhere; nothing for all others.
std::optional<StaticFile> find_static_file(std::string_view path);

} // namespace mirelclient
