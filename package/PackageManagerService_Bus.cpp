// What the service answers on the bus. The handlers run on its client's request worker, one at a
// time; each is an operation that locks for itself.
#include "bus/LocalClient.hpp"
#include "package/PackageManagerService.hpp"
#include "package/package_envelopes.hpp"

namespace tessaron {

void PackageManagerService::serve_topics() {
    using Reply = PackageManagerReply;
    using Name = PackageNameRequest;
    client_->serve(
        "pkgmgr.list_installed",
        [this](bus::LocalClient::Bytes const&) { return list_installed().build(); },
        "Lists every installed package - name/version/arch/status");
    client_->serve_record<Name, Reply>(
        "pkgmgr.manifest", [this](Name const& request) { return manifest(request.name); },
        "Returns the installed manifest for one package by name");
    client_->serve_record<Name, Reply>(
        "pkgmgr.start", [this](Name const& request) { return start(request.name); },
        "Starts an installed package's process if it isn't already running");
    client_->serve_record<Name, Reply>(
        "pkgmgr.stop", [this](Name const& request) { return stop(request.name); },
        "Stops an installed package's process and marks it administratively stopped - it will NOT "
        "be auto-respawned until start()/restart() is called again");
    client_->serve_record<Name, Reply>(
        "pkgmgr.restart", [this](Name const& request) { return restart(request.name); },
        "Stops then starts an installed package");
    client_->serve_record<Name, Reply>(
        "pkgmgr.uninstall", [this](Name const& request) { return uninstall(request.name); },
        "Stops (if running) and removes an installed package's files + registry entry");
    client_->serve_record<PackageInstallRequest, Reply>(
        "pkgmgr.install", [this](PackageInstallRequest const& request) { return install(request); },
        "Installs a package from an already-downloaded, self-describing local artifact tarball "
        "(embeds its own manifest.json - see manifest-schema) - fetching from a registry server is "
        "the caller's own concern, not this topic's");
    client_->serve_record<PackageArgsRequest, Reply>(
        "pkgmgr.set_launch_args",
        [this](PackageArgsRequest const& request) {
            return set_launch_args(request.name, request.args);
        },
        "Replaces a package's extra argv entries (after its own executable path) - takes effect on "
        "the next start/restart");
}

} // namespace tessaron
