// Installing and removing packages. Runs on its callers' threads, under the service's lock from
// beginning to end; touches the store's files and, at the end, the entries.
#include "app/utilities/file_io.hpp"
#include "app/utilities/shell_command.hpp"
#include "package/PackageManagerService.hpp"
#include "package/lifecycle_script.hpp"
#include "package/package_commands.hpp"
#include "package/payload_digest.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <tuple>

namespace tessaron {

namespace {

// What staging an artifact gave: its manifest, or the reason why it cannot be installed.
struct Staged {
    std::optional<std::string> error;
    json::Value manifest;
};

Staged staging_failure(std::string error) {
    return {std::move(error), {}};
}

// Archives come from elsewhere: anything but a file, such as a named pipe that would block its
// reader, counts as missing.
bool is_readable_file(std::string const& path) {
    UniqueFd const file = open_file(path, O_RDONLY | O_NONBLOCK);
    struct stat status = {};
    return file.is_open() && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

void remove_tree(std::string const& path) {
    // What is left behind shows where it is in the way, and is removed by the next install.
    std::ignore = run_shell(package_commands::remove_tree(path));
}

bool digest_matches(json::Value const& manifest, std::string const& payload,
                    std::stop_token const& stop) {
    std::string const wanted = manifest.at("sha256").as_string("");
    return wanted.empty() || sha256_of_file(payload, stop) == wanted;
}

LifecycleScript script_of(PackageEntry const& entry, std::string const& working_dir,
                          std::string const& action) {
    return {.working_dir = working_dir,
            .script_name = action + ".sh",
            .name = entry.name,
            .version = entry.version,
            .arch = entry.arch,
            .install_path = entry.install_path,
            .action = action};
}

// Unpacks and prepares the artifact in `staging`. Every command here may be ended by `stop`.
Staged stage_artifact(PackageEntry const& entry, std::string const& artifact,
                      std::string const& staging, std::stop_token const& stop) {
    remove_tree(staging);
    std::ignore = run_shell(package_commands::make_directories(staging), stop);
    if (run_shell(package_commands::extract_artifact(artifact, staging), stop) != 0) {
        return staging_failure("install: tar extraction failed");
    }

    std::string const manifest_path = staging + "/manifest.json";
    if (!is_readable_file(manifest_path)) {
        return staging_failure("install: archive has no manifest.json");
    }
    json::Value manifest;
    try {
        manifest = json::Value::parse(read_file(manifest_path).value_or(""));
    } catch (std::exception const& error) {
        return staging_failure(std::string("install: malformed manifest: ") + error.what());
    }

    std::string const payload_path = staging + "/payload.tar";
    if (!is_readable_file(payload_path)) {
        return staging_failure("install: archive has no payload.tar");
    }
    if (!digest_matches(manifest, payload_path, stop)) {
        return staging_failure(
            "install: checksum mismatch - refusing to install a corrupt/tampered artifact");
    }
    if (run_shell(package_commands::extract_payload(payload_path, staging), stop) != 0) {
        return staging_failure("install: payload.tar extraction failed");
    }
    if (is_readable_file(staging + "/install.sh") &&
        run_lifecycle_script(script_of(entry, staging, "install"), stop) != 0) {
        return staging_failure(
            "install: install.sh exited non-zero - rolled back, nothing installed");
    }
    return {std::nullopt, std::move(manifest)};
}

// From the removal of the same version on there is no way back, so nothing here can be cancelled.
std::optional<std::string> move_into_place(std::string const& staging,
                                           std::string const& install_path) {
    remove_tree(install_path);
    if (std::rename(staging.c_str(), install_path.c_str()) != 0) {
        return std::string("install: couldn't move staged files into place: ") +
               std::strerror(errno);
    }
    return std::nullopt;
}

} // namespace

PackageManagerReply PackageManagerService::install(PackageInstallRequest const& request) {
    MutexLock lock(mutex_);
    if (request.name.empty() || request.version.empty()) {
        return PackageManagerReply::failure("install: name/version required");
    }
    PackageEntry entry;
    entry.name = request.name;
    entry.version = request.version;
    entry.arch = request.arch;
    entry.install_path = store_root_ + "/" + "store" + "/" + request.name + "/" + request.version;

    std::string const staging = entry.install_path + ".staging";
    Staged staged =
        stage_artifact(entry, request.artifact_path, staging, command_stop_.get_token());
    if (!staged.error) {
        staged.error = move_into_place(staging, entry.install_path);
    }
    if (staged.error) {
        remove_tree(staging);
        return PackageManagerReply::failure(*staged.error);
    }
    entry.manifest = std::move(staged.manifest);

    // The previous version runs until here, so its downtime is that of its shutdown. A first
    // install has none to stop, and a stop never fails otherwise.
    std::ignore = stop_locked(request.name);
    entries_.insert_or_assign(request.name, std::move(entry));
    save_registry();
    if (request.start_after_install) {
        // It is installed either way; that it does not run shows in the listing.
        std::ignore = start_locked(request.name);
    }
    return PackageManagerReply::success();
}

PackageManagerReply PackageManagerService::uninstall(std::string const& name) {
    MutexLock lock(mutex_);
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return PackageManagerReply::failure("uninstall: \"" + name + "\" is not installed");
    }
    // A stop never fails for an installed package.
    std::ignore = stop_locked(name);
    PackageEntry const& entry = found->second;
    if (is_readable_file(entry.install_path + "/uninstall.sh")) {
        // A package cannot refuse its removal, and a hanging script cannot hold the daemon's stop.
        std::ignore = run_lifecycle_script(script_of(entry, entry.install_path, "uninstall"),
                                           command_stop_.get_token());
    }
    remove_tree(entry.install_path);
    entries_.erase(found);
    save_registry();
    return PackageManagerReply::success();
}

} // namespace tessaron
