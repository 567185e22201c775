#include "MirelClientApp/MirelClientApp.hpp"

#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/platform_arch.hpp"
#include "MirelClientApp/routes/package_routes.hpp"
#include "MirelClientApp/routes/registry_routes.hpp"
#include "MirelClientApp/routes/self_routes.hpp"
#include "app/utilities/shell_command.hpp"
#include "app/utilities/shell_quote.hpp"

#include <cstdint>
#include <cstdio>
#include <tuple>

namespace mirelclient {

namespace {

/// How long a restart waits for the answers on their way to their callers, among them that of the
/// request that asked for it.
constexpr std::chrono::milliseconds K_ANSWER_GRACE{500};

} // namespace

MirelClientApp::MirelClientApp(tessaron::AppContext& context)
    : ConsoleApp(context), downloads_dir_(context.app_dir() + "/downloads"),
      registry_(context.config().as_str(config::K_REGISTRY_URL)),
      packages_(context.app_dir() + "/store", tessaron::K_PACKAGE_MANAGER_SUPERVISE_POLL,
                tessaron::InheritedChildren::of_this_process()),
      web_server_(context.config().as_str(config::K_WEB_ADDR),
                  static_cast<std::uint16_t>(context.config().as_int(config::K_WEB_PORT))),
      start_time_(std::chrono::steady_clock::now()) {
    mkdir_recursive(downloads_dir_);
    apply_bootstrap_package_list();
    start_web_server();
}

MirelClientApp::~MirelClientApp() {
    // The web server waits for its running handlers, so whatever they may be blocked in ends first.
    end_what_is_under_way();
}

void MirelClientApp::end_what_is_under_way() {
    registry_.request_stop();
    packages_.request_stop();
}

void MirelClientApp::prepare_for_restart() {
    end_what_is_under_way();
    std::ignore = web_server_.wait_until_answered(K_ANSWER_GRACE);
}

int MirelClientApp::run_impl() {
    wait_until_stopped();
    return 0;
}

void MirelClientApp::mkdir_recursive(std::string const& path) {
    std::ignore = tessaron::run_shell("mkdir -p '" + tessaron::shell_quote(path) + "'");
}

void MirelClientApp::start_web_server() {
    register_package_routes(web_server_, packages_);
    register_registry_routes(web_server_, registry_);
    register_self_routes(web_server_, {context().config(), registry_, K_RUNNING_VERSION_CORE,
                                       detect_platform_arch(), start_time_});
    std::string const error = web_server_.start();
    if (!error.empty()) {
        std::fprintf(stderr, "mirelClient: web server failed to start: %s\n", error.c_str());
        context().log().log(tessaron::LogLevel::ERROR, "web server failed to start: ", error);
    }
}

} // namespace mirelclient
