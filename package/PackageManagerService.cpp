// Life and queries of the service. Runs on its callers' threads; `supervise_loop`, which the
// constructor starts, stands with the rest of the supervision.
#include "package/PackageManagerService.hpp"

#include "app/utilities/shell_command.hpp"
#include "bus/LocalClient.hpp"
#include "libraries/threads/start_thread.hpp"
#include "package/package_commands.hpp"
#include "package/registry_file.hpp"

#include <tuple>
#include <utility>

namespace tessaron {

namespace {

char const* status_of(PackageEntry const& entry) {
    if (entry.pid >= 1) {
        return "running";
    }
    return entry.administratively_stopped ? "stopped" : "down";
}

json::Value listing_of(PackageEntry const& entry) {
    double const started_at = entry.pid >= 1 ? static_cast<double>(entry.started_at) : 0;
    return json::Value::Object{
        {"name", entry.name},
        {"version", entry.version},
        {"arch", entry.arch},
        {"status", status_of(entry)},
        {"launch_args", json::Value::Array(entry.launch_args.begin(), entry.launch_args.end())},
        {"started_at", started_at},
    };
}

} // namespace

PackageManagerService::PackageManagerService(std::string store_root,
                                             std::chrono::milliseconds supervise_poll,
                                             InheritedChildren inherited,
                                             std::shared_ptr<bus::LocalClient> client)
    : store_root_(std::move(store_root)), supervise_poll_(supervise_poll),
      inherited_(std::move(inherited)), client_(std::move(client)) {
    // A store that cannot be made shows where it is used: nothing is found, installs fail.
    std::ignore = run_shell(package_commands::make_directories(store_root_));
    std::ignore = run_shell(package_commands::make_directories(store_root_ + "/" + "store"));
    {
        MutexLock lock(mutex_);
        entries_ = registry_file::load(registry_path());
    }
    if (client_) {
        serve_topics();
    }
    supervisor_ = start_thread("pkg-supervisor", [this] { supervise_loop(); });
}

PackageManagerService::~PackageManagerService() {
    request_stop();
    client_.reset();
    if (supervisor_.joinable()) {
        supervisor_.join();
    }
}

void PackageManagerService::request_stop() {
    {
        MutexLock lock(wake_mutex_);
        stop_requested_ = true;
    }
    wake_.notify_all();
    command_stop_.request_stop();
}

PackageManagerReply PackageManagerService::list_installed() const {
    MutexLock lock(mutex_);
    json::Value::Array packages;
    packages.reserve(entries_.size());
    for (auto const& [name, entry] : entries_) {
        packages.push_back(listing_of(entry));
    }
    return PackageManagerReply::success(std::move(packages));
}

PackageManagerReply PackageManagerService::manifest(std::string const& name) const {
    MutexLock lock(mutex_);
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return PackageManagerReply::failure("manifest: \"" + name + "\" is not installed");
    }
    return PackageManagerReply::success(found->second.manifest);
}

PackageManagerReply PackageManagerService::set_launch_args(std::string const& name,
                                                           std::vector<std::string> args) {
    MutexLock lock(mutex_);
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return PackageManagerReply::failure("set_launch_args: \"" + name + "\" is not installed");
    }
    found->second.launch_args = std::move(args);
    save_registry();
    return PackageManagerReply::success();
}

std::string PackageManagerService::registry_path() const {
    return store_root_ + "/registry.json";
}

void PackageManagerService::save_registry() const {
    // A package operation does not fail because its record could not be written: the previous
    // file stays whole, and the next save that works catches up.
    std::ignore = registry_file::save(registry_path(), entries_);
}

} // namespace tessaron
