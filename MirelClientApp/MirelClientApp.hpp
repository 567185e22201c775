#pragma once

#include "MirelClientApp/ServiceAddresses.hpp"
#include "MirelClientApp/console/Console.hpp"
#include "MirelClientApp/diagnostics/DbBrowserClient.hpp"
#include "MirelClientApp/diagnostics/DiagnosticsClient.hpp"
#include "MirelClientApp/remote/ErrorText.hpp"
#include "MirelClientApp/remote/HeartbeatSender.hpp"
#include "MirelClientApp/remote/RegistryClient.hpp"
#include "MirelClientApp/tunnel/TunnelClient.hpp"
#include "MirelClientApp/updates/PackageUpdater.hpp"
#include "MirelClientApp/updates/SelfUpdater.hpp"
#include "MirelClientApp/vnc/vnc_bridge.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "app/ConsoleApp.hpp"
#include "package/PackageManagerService.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace tessaron::bus {
class LocalClient;
}

namespace mirelclient {

/// The version that every build claims, so that whatever is published compares as newer.
inline constexpr char const* K_RUNNING_VERSION_CORE = "0.0.0";

/// The daemon: it owns the services, lets the web surface drive them, and is the one place where
/// the registry server and the package store meet.
///
/// Construction provisions the packages of the bootstrap list (blocking) before further ones can be
/// fetched over the bus and the web server listens. Destruction ends the transfers, shell commands
/// and terminals under way, lets the running handlers and updates end, and leaves the packages'
/// processes running.
///
/// Ownership: services by value; the context must outlive the object.
/// Thread safety: `fetch_install` and `stop` from any thread; the rest only on the main thread.
/// Errors: a standard exception from the constructor ends the start of the process.
class MirelClientApp : public tessaron::ConsoleApp<MirelClientApp> {
public:
    explicit MirelClientApp(tessaron::AppContext& context);
    ~MirelClientApp() override;

    void stop() { request_stop(); }
    void user_signal_handler(int /*signal_number*/) override { stop(); }

    /// Downloads a build's artifact and installs it. An empty channel means "main".
    [[nodiscard]] tessaron::PackageManagerReply
    fetch_install(std::string const& name, std::string const& channel, std::string const& version,
                  std::string const& arch, bool start_after_install);

    /// Runs "mkdir -p"; the result is ignored, since what is done in the directory reports for
    /// itself.
    static void mkdir_recursive(std::string const& path);

private:
    int run_impl() override;
    void prepare_for_restart() override;
    /// Transfers, shell commands and terminals; from then on all further ones fail.
    void end_what_is_under_way();

    /// A node of a service's own on the bus.
    std::shared_ptr<tessaron::bus::LocalClient> connect_service(std::string const& label,
                                                                std::uint32_t address);

    /// Where a build's artifact lies once it was fetched.
    std::string artifact_path(std::string const& name, std::string const& version,
                              std::string const& arch) const;
    /// Fetches it there. An empty channel means "main".
    ErrorText fetch_artifact(std::string const& name, std::string const& channel,
                             std::string const& version, std::string const& arch) const;
    PackageUpdater::Steps update_steps();

    void apply_bootstrap_package_list();
    void apply_bootstrap_entry(tessaron::json::Value const& entry);
    /// On a node of its own, so that a download does not hold up what the package service is asked.
    void serve_fetch_install();
    void start_web_server();

    std::string downloads_dir_;
    ServiceAddresses addresses_;
    RegistryClient registry_;
    tessaron::PackageManagerService packages_;
    DiagnosticsClient diagnostics_;
    DbBrowserClient db_browser_;
    SelfUpdater self_updater_;
    Console console_;
    VncBridges vnc_bridges_;
    PackageUpdater package_updater_; // Its threads use what stands above it.
    HeartbeatSender heartbeat_;
    TunnelClient tunnel_;  // Dials the web server like anybody else.
    WebServer web_server_; // Its handlers use what stands above the heartbeat.
    std::chrono::steady_clock::time_point start_time_;
    /// Last: its handler uses the registry client and the package service.
    std::shared_ptr<tessaron::bus::LocalClient> registry_on_bus_;
};

} // namespace mirelclient
