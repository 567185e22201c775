#pragma once

#include "app/config_field.hpp"
#include "generated/MirelClientApp/App/defaults.hpp"
#include "generated/app/bus_fields.hpp"

#include <tuple>

/// The configuration table of this daemon: one constant per setting and, in `K_ALL_FIELDS`, the
/// order of every listing.
namespace mirelclient::config {

using TextField = tessaron::config::FieldSpec<char const*>;
using IntField = tessaron::config::FieldSpec<long long>;

inline constexpr TextField K_APP_NAME{
    "app_name",
    "This app's own name - its Logger label, its bus identity's name, and ConsoleApp's own CLI "
    "--help header/single-instance lock file name",
    "mirelclient"};
inline constexpr TextField K_APP_DESCRIPTION{
    "app_description", "Human-readable one-line app description (CLI --help)",
    "The one, always-on package-manager daemon for this machine - "
    "installs/starts/stops/restarts ambrelight apps fetched from a mirelserver registry (see "
    "PackageManagerService)"};
inline constexpr TextField K_APP_DIR{
    "app_dir", "Base directory for this app's own operational data (package store, downloads)",
    MIREL_DEFAULT_APP_DIR};
using tessaron::K_BUS_MULTICAST_GROUP;
using tessaron::K_BUS_MULTICAST_PORT;
using tessaron::K_SHARED_BUS_ADDRESS;
inline constexpr TextField K_LOG_DIR{
    "log_dir",
    "Directory the diagnostic logger's own (large) file lives under, in an app_name subdirectory",
    MIREL_DEFAULT_LOG_DIR};
inline constexpr IntField K_LOG_MIN_LEVEL{
    "log_min_level",
    "Minimum severity level written to the log (0=TRACE, 1=INFO, 2=WARNING, 3=ERROR)", 1};
inline constexpr TextField K_REGISTRY_URL{
    "registry_url",
    "Base URL of the mirelserver instance this daemon fetches packages from - editable live via "
    "the Self/Config page, takes effect immediately (see RegistryClient::set_base_url())",
    MIREL_DEFAULT_REGISTRY_URL};
inline constexpr TextField K_BOOTSTRAP_PACKAGE_LIST_PATH{
    "bootstrap_package_list_path",
    "Path to a JSON file of [{name,version,arch,channel}] packages this daemon should ensure are "
    "installed on startup - fast provisioning of a fresh target from one file instead of "
    "installing each package by hand. Empty (default) disables this - a normal daemon start "
    "touches nothing.",
    ""};
inline constexpr TextField K_WEB_ADDR{
    "web_addr", "Bind address for the built-in web dashboard/REST API", "0.0.0.0"};
inline constexpr IntField K_WEB_PORT{"web_port",
                                     "Bind port for the built-in web dashboard/REST API", 7080};
inline constexpr TextField K_SELF_UPDATE_PACKAGE_NAME{
    "self_update_package_name",
    "Reserved package name this mirelclient build's own releases are published under on the "
    "registry",
    "mirelclient"};
inline constexpr TextField K_ADVERTISE_ADDR{
    "advertise_addr",
    "Base URL mirelserver should use to reach THIS machine's own web dashboard/REST API when "
    "reverse-proxying to it (see HeartbeatSender), e.g. \"http://192.0.2.10:7080\". web_addr is a "
    "BIND address (often \"0.0.0.0\", not reachable from another machine), so this is a separate, "
    "explicitly-set field, not derived from it. Empty (default) disables heartbeating entirely - "
    "a mirelclient with no known-reachable address has nothing useful to report.",
    ""};
inline constexpr TextField K_CLIENT_NAME{
    "client_name",
    "This machine's own identifier in mirelserver's connected-clients list - defaults to app_name "
    "so every deployed mirelclient is distinguishable without extra configuration, but can be "
    "overridden (e.g. to a human-friendly machine/site name) independently of the bus identity "
    "app_name also drives.",
    "mirelclient"};
inline constexpr IntField K_HEARTBEAT_INTERVAL_SECONDS{
    "heartbeat_interval_seconds",
    "How often this daemon POSTs (client_name, advertise_addr) to registry_url's "
    "/api/clients/heartbeat - see clients.Registry's own file doc comment (mirelserver) for the "
    "staleness window this interval should stay comfortably under.",
    30};
inline constexpr TextField K_TUNNEL_ADDR{
    "tunnel_addr",
    "mirelserver's reverse-tunnel listen address (\"host:port\") this daemon dials OUT to and "
    "keeps open, so mirelserver can reach this machine's own web API/VNC even from behind a "
    "NAT/firewall with no port forwarding - see TunnelClient. Empty (default) disables the tunnel "
    "entirely.",
    ""};
inline constexpr IntField K_VNC_LOCAL_PORT{
    "vnc_local_port",
    "Local port a managed package's own VNC (RFB) server listens on (e.g. pv_sorrel's SorrelApp "
    "default of 5900) - dialed whenever mirelserver opens a \"vnc\"-targeted tunnel stream.",
    5900};

inline constexpr auto K_ALL_FIELDS = std::tie(
    K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR, K_BUS_MULTICAST_GROUP, K_BUS_MULTICAST_PORT,
    K_SHARED_BUS_ADDRESS, K_LOG_DIR, K_LOG_MIN_LEVEL, K_REGISTRY_URL, K_BOOTSTRAP_PACKAGE_LIST_PATH,
    K_WEB_ADDR, K_WEB_PORT, K_SELF_UPDATE_PACKAGE_NAME, K_ADVERTISE_ADDR, K_CLIENT_NAME,
    K_HEARTBEAT_INTERVAL_SECONDS, K_TUNNEL_ADDR, K_VNC_LOCAL_PORT);

} // namespace mirelclient::config
