#include "MirelClientApp/routes/asset_routes.hpp"

#include "app/utilities/file_io.hpp"
#include "libraries/assets/assets.hpp"
#include "tests/unit/MirelClientApp/web/LoopbackClient.hpp"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace mirelclient::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char const* K_JAVASCRIPT = "text/javascript; charset=utf-8";

class AssetRoutes : public testing::Test {
protected:
    AssetRoutes() : server_("127.0.0.1", 0) {
        register_asset_routes(server_);
        EXPECT_EQ(server_.start(), "");
    }

    std::string fetch(std::string const& target) { return answer_to(server_.port(), get(target)); }

    void expect_module(std::string const& target, std::string_view content) {
        EXPECT_EQ(fetch(target), answer_text("200 OK", K_JAVASCRIPT, std::string(content)))
            << target;
    }

    void expect_not_found(std::string const& target) {
        EXPECT_EQ(fetch(target), json_answer("404 Not Found", R"({"error":"not found"})"))
            << target;
    }

    WebServer server_;
};

std::string_view content_of(std::span<Asset const> files, std::string_view path) {
    auto const found = std::ranges::find(files, path, &Asset::path);
    return found == files.end() ? std::string_view{} : found->content;
}

/// What a module imports, as it names it.
std::vector<std::string> imports_of(std::string const& text) {
    static std::regex const import(
        R"re(\n\s*(?:import|(?:import|export)\b[^;'"()=]*\bfrom)\s*["']([^"']+)["'])re");
    std::vector<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), import), end; match != end; ++match) {
        names.push_back((*match)[1]);
    }
    return names;
}

TEST_F(AssetRoutes, RootIsThePageWithItsTitle) {
    std::string const answer = fetch("/");

    EXPECT_EQ(answer,
              answer_text("200 OK", "text/html; charset=utf-8", std::string(k_dashboard_html)));
    EXPECT_THAT(answer, HasSubstr("<title>mirelClient</title>"));
}

TEST_F(AssetRoutes, PageLeavesTheTerminalAndTheViewerToBeLoadedByAbsolutePaths) {
    std::string const page(k_dashboard_html);

    EXPECT_THAT(page, HasSubstr(R"(href="/static/xterm/xterm.css")"));
    EXPECT_THAT(page, HasSubstr(R"(import("/static/novnc/core/rfb.js"))"));
    EXPECT_THAT(page, HasSubstr(R"(import("/static/xterm/xterm.mjs"))"));
    EXPECT_THAT(page, HasSubstr(R"(import("/static/xterm/addon-fit.mjs"))"));
}

TEST_F(AssetRoutes, XtermFilesHaveTheirContentTypes) {
    expect_module("/static/xterm/xterm.mjs", k_xterm_mjs);
    expect_module("/static/xterm/addon-fit.mjs", k_addon_fit_mjs);
    EXPECT_EQ(fetch("/static/xterm/xterm.css"),
              answer_text("200 OK", "text/css; charset=utf-8", std::string(k_xterm_css)));
    EXPECT_THAT(std::string(k_xterm_css), HasSubstr(".xterm"));
}

TEST_F(AssetRoutes, UnknownXtermFileIsNotFound) {
    expect_not_found("/static/xterm/none.mjs");
}

TEST_F(AssetRoutes, KnownModuleIsServed) {
    expect_module("/static/novnc/core/rfb.js", content_of(k_novnc_files, "rfb.js"));
}

TEST_F(AssetRoutes, UnknownModuleIsNotFound) {
    expect_not_found("/static/novnc/core/none.js");
}

TEST_F(AssetRoutes, FolderItselfIsNotFound) {
    expect_not_found("/static/novnc/core/");
    expect_not_found("/static/novnc/core");
    expect_not_found("/static/novnc/core/util");
}

TEST_F(AssetRoutes, PathThatClimbsIsNoKeyOfTheTable) {
    expect_not_found("/static/novnc/core/../core/rfb.js");
    expect_not_found("/static/novnc/core/%2e%2e/core/rfb.js");
    expect_not_found("/static/novnc/core/./rfb.js");
    expect_not_found("/static/novnc/core/../../../../etc/passwd");
    expect_not_found("/static/novnc/vendor/../core/rfb.js");
}

TEST_F(AssetRoutes, ModuleInAFolderMatchesAcrossTwoPieces) {
    expect_module("/static/novnc/core/util/logging.js",
                  content_of(k_novnc_files, "util/logging.js"));
}

TEST_F(AssetRoutes, NamesAreComparedByteForByte) {
    expect_not_found("/static/novnc/core/RFB.js");
    expect_not_found("/static/novnc/core/rfb.js%00");
}

TEST_F(AssetRoutes, QueryDoesNotBelongToTheName) {
    expect_module("/static/novnc/core/base64.js?v=1", content_of(k_novnc_files, "base64.js"));
}

TEST_F(AssetRoutes, OtherMethodsAreNotFound) {
    EXPECT_THAT(answer_to(server_.port(), "POST / HTTP/1.1\r\nHost: test\r\n\r\n"),
                StartsWith("HTTP/1.1 404 "));
}

TEST_F(AssetRoutes, EveryModuleThatTheViewerImportsIsServed) {
    std::set<std::string> seen;
    std::vector<std::string> open{"/static/novnc/core/rfb.js"};
    while (!open.empty()) {
        std::string const target = open.back();
        open.pop_back();
        if (!seen.insert(target).second) {
            continue;
        }
        std::string const answer = fetch(target);
        ASSERT_THAT(answer,
                    StartsWith("HTTP/1.1 200 OK\r\nContent-Type: " + std::string(K_JAVASCRIPT)))
            << target;
        for (std::string const& name : imports_of(answer)) {
            auto const folder = std::filesystem::path(target).parent_path();
            open.push_back((folder / name).lexically_normal().string());
        }
    }

    EXPECT_THAT(seen, Contains("/static/novnc/vendor/pako/lib/zlib/zstream.js"));
    EXPECT_THAT(seen, Contains("/static/novnc/core/decoders/zrle.js"));
    EXPECT_GE(seen.size(), 45U);
}

TEST(Assets, NovncTableListsItsCoreInOrder) {
    std::vector<std::string_view> paths;
    std::ranges::transform(k_novnc_files, std::back_inserter(paths), &Asset::path);

    EXPECT_THAT(
        paths,
        ElementsAre("base64.js", "crypto/aes.js", "crypto/bigint.js", "crypto/crypto.js",
                    "crypto/des.js", "crypto/dh.js", "crypto/md5.js", "crypto/rsa.js",
                    "decoders/copyrect.js", "decoders/h264.js", "decoders/hextile.js",
                    "decoders/jpeg.js", "decoders/raw.js", "decoders/rre.js", "decoders/tight.js",
                    "decoders/tightpng.js", "decoders/zlib.js", "decoders/zrle.js", "deflator.js",
                    "display.js", "encodings.js", "inflator.js", "input/domkeytable.js",
                    "input/fixedkeys.js", "input/gesturehandler.js", "input/keyboard.js",
                    "input/keysym.js", "input/keysymdef.js", "input/util.js", "input/vkeys.js",
                    "input/xtscancodes.js", "ra2.js", "rfb.js", "util/browser.js", "util/cursor.js",
                    "util/element.js", "util/events.js", "util/eventtarget.js", "util/int.js",
                    "util/logging.js", "util/strings.js", "websock.js"));
}

TEST(Assets, ConstantsAreThePublishedFilesByteForByte) {
    std::string const packages = MIREL_DASHBOARD_PACKAGES;
    std::string const novnc = packages + "/@novnc/novnc/";
    std::string const xterm = packages + "/@xterm/";

    EXPECT_EQ(k_xterm_mjs, tessaron::read_file(xterm + "xterm/lib/xterm.mjs"));
    EXPECT_EQ(k_addon_fit_mjs, tessaron::read_file(xterm + "addon-fit/lib/addon-fit.mjs"));
    EXPECT_EQ(k_xterm_css, tessaron::read_file(xterm + "xterm/css/xterm.css"));
    for (Asset const& file : k_novnc_files) {
        EXPECT_EQ(file.content, tessaron::read_file(novnc + "core/" + std::string(file.path)));
    }
    for (Asset const& file : k_novnc_vendor_files) {
        EXPECT_EQ(file.content, tessaron::read_file(novnc + "vendor/" + std::string(file.path)));
    }
}

TEST(Assets, ModulesExportWhatThePageImports) {
    EXPECT_THAT(std::string(content_of(k_novnc_files, "rfb.js")),
                HasSubstr("export default class RFB"));
    EXPECT_THAT(std::string(k_xterm_mjs), HasSubstr(" as Terminal"));
    EXPECT_THAT(std::string(k_addon_fit_mjs), HasSubstr(" as FitAddon"));
}

} // namespace
} // namespace mirelclient::test
