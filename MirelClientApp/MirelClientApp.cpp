#include "MirelClientApp/MirelClientApp.hpp"

#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/platform_arch.hpp"
#include "MirelClientApp/routes/asset_routes.hpp"
#include "MirelClientApp/routes/console_routes.hpp"
#include "MirelClientApp/routes/database_routes.hpp"
#include "MirelClientApp/routes/diagnostics_routes.hpp"
#include "MirelClientApp/routes/package_routes.hpp"
#include "MirelClientApp/routes/registry_routes.hpp"
#include "MirelClientApp/routes/self_routes.hpp"
#include "MirelClientApp/routes/vnc_routes.hpp"
#include "app/utilities/shell_command.hpp"
#include "app/utilities/shell_quote.hpp"
#include "bus/LocalClient.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <tuple>

namespace mirelclient {

using std::chrono::steady_clock;

namespace {

/// How long a restart waits for what is under way to end, and for the answers on their way to their
/// callers, among them that of the request that asked for it.
constexpr std::chrono::milliseconds K_RESTART_GRACE{500};
constexpr std::chrono::milliseconds K_TUNNEL_GRACE{50};
/// How long a stop waits for the tunnel's shells.
constexpr std::chrono::milliseconds K_STOP_GRACE{500};

std::uint16_t port_of(long long setting) {
    return static_cast<std::uint16_t>(setting);
}

} // namespace

MirelClientApp::MirelClientApp(tessaron::AppContext& context)
    : ConsoleApp(context), downloads_dir_(context.app_dir() + "/downloads"),
      addresses_(ServiceAddresses::claim(
          context.hub(), context.app_name(),
          static_cast<std::uint32_t>(context.config().as_int(config::K_SHARED_BUS_ADDRESS)))),
      registry_(context.config().as_str(config::K_REGISTRY_URL)),
      packages_(context.app_dir() + "/store", tessaron::K_PACKAGE_MANAGER_SUPERVISE_POLL,
                tessaron::InheritedChildren::of_this_process(),
                connect_service("pkgmgr", addresses_.packages)),
      diagnostics_(context.hub(), addresses_.diagnostics),
      db_browser_(context.hub(), addresses_.db_browser, diagnostics_),
      self_updater_(registry_, context.config().as_str(config::K_SELF_UPDATE_PACKAGE_NAME),
                    detect_platform_arch(), K_RUNNING_VERSION_CORE,
                    [this](std::string const& reason) { app_control().request_reboot(reason); }),
      package_updater_(update_steps()),
      heartbeat_(registry_, context.config().as_str(config::K_CLIENT_NAME),
                 context.config().as_str(config::K_ADVERTISE_ADDR),
                 context.config().as_int(config::K_HEARTBEAT_INTERVAL_SECONDS)),
      tunnel_(context.config().as_str(config::K_TUNNEL_ADDR),
              context.config().as_str(config::K_CLIENT_NAME),
              port_of(context.config().as_int(config::K_WEB_PORT)),
              port_of(context.config().as_int(config::K_VNC_LOCAL_PORT))),
      web_server_(context.config().as_str(config::K_WEB_ADDR),
                  port_of(context.config().as_int(config::K_WEB_PORT))),
      start_time_(steady_clock::now()) {
    mkdir_recursive(downloads_dir_);
    apply_bootstrap_package_list();
    serve_fetch_install();
    start_web_server();
    heartbeat_.start();
    tunnel_.start();
}

MirelClientApp::~MirelClientApp() {
    // The web server and the nodes on the bus wait for their running handlers and the updater for
    // its updates, so whatever they may be blocked in ends first.
    end_what_is_under_way();
    tunnel_.stop();
    // Shells that ignore their end are ended by force; a process that is gone could not do it.
    std::ignore = tunnel_.wait_until_streams_ended(K_STOP_GRACE);
}

void MirelClientApp::end_what_is_under_way() {
    registry_.request_stop();
    packages_.request_stop();
    diagnostics_.request_stop();
    db_browser_.request_stop();
    self_updater_.request_stop();
    console_.request_stop();
    vnc_bridges_.request_stop();
    heartbeat_.stop();
}

void MirelClientApp::prepare_for_restart() {
    end_what_is_under_way();
    auto const deadline = steady_clock::now() + K_RESTART_GRACE;
    auto const time_left = [deadline] {
        return std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
    };
    // What has not ended by then is cut off, as by a crash, which the store survives.
    std::ignore = package_updater_.wait_until_idle(time_left());
    std::ignore = web_server_.wait_until_answered(time_left());
    // An answer that takes its way through the tunnel has the second half of it to go.
    std::ignore = tunnel_.wait_until_streams_ended(std::min(time_left(), K_TUNNEL_GRACE));
    tunnel_.stop();
    std::ignore = console_.wait_until_ended(time_left());
    std::ignore = vnc_bridges_.wait_until_ended(time_left());
    std::ignore = tunnel_.wait_until_streams_ended(time_left());
}

std::shared_ptr<tessaron::bus::LocalClient>
MirelClientApp::connect_service(std::string const& label, std::uint32_t address) {
    return context().hub().connect(
        address, proto::bus::make_identity(label, context().app_name(), 1, "", ""));
}

int MirelClientApp::run_impl() {
    wait_until_stopped();
    return 0;
}

void MirelClientApp::mkdir_recursive(std::string const& path) {
    std::ignore = tessaron::run_shell("mkdir -p '" + tessaron::shell_quote(path) + "'");
}

void MirelClientApp::start_web_server() {
    register_asset_routes(web_server_);
    register_package_routes(web_server_, packages_, package_updater_);
    register_console_routes(web_server_, console_);
    register_vnc_routes(web_server_, vnc_bridges_, context().config());
    register_registry_routes(web_server_, registry_);
    register_diagnostics_routes(web_server_, diagnostics_);
    register_database_routes(web_server_, db_browser_);
    register_self_routes(web_server_, {context().config(), registry_, self_updater_, start_time_});
    std::string const error = web_server_.start();
    if (!error.empty()) {
        std::fprintf(stderr, "mirelClient: web server failed to start: %s\n", error.c_str());
        context().log().log(tessaron::LogLevel::ERROR, "web server failed to start: ", error);
    }
}

} // namespace mirelclient
