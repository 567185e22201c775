// Where the registry server and the package store meet: one fetch and install, also over the bus,
// the steps of an update, and the list of packages a fresh machine receives. Runs on the main
// thread during start (the list), on whatever thread asks (one fetch; over the bus, the request
// worker of its node) and on the update threads; touches the registry client, the package service,
// the log.

#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/FetchInstallRequest.hpp"
#include "MirelClientApp/MirelClientApp.hpp"
#include "app/utilities/file_io.hpp"
#include "bus/LocalClient.hpp"

#include <cstdint>
#include <exception>
#include <optional>

namespace mirelclient {

using tessaron::LogLevel;
using tessaron::PackageManagerReply;
using tessaron::json::Value;

namespace {

constexpr char const* K_DEFAULT_CHANNEL = "main";

std::string error_of(PackageManagerReply const& reply) {
    return reply.ok ? "" : reply.error;
}

} // namespace

std::string MirelClientApp::artifact_path(std::string const& name, std::string const& version,
                                          std::string const& arch) const {
    return downloads_dir_ + "/" + name + "-" + version + "-" + arch + ".tar.gz";
}

ErrorText MirelClientApp::fetch_artifact(std::string const& name, std::string const& channel,
                                         std::string const& version,
                                         std::string const& arch) const {
    return registry_.fetch_artifact(name, channel.empty() ? K_DEFAULT_CHANNEL : channel, version,
                                    arch, artifact_path(name, version, arch));
}

PackageManagerReply MirelClientApp::fetch_install(std::string const& name,
                                                  std::string const& channel,
                                                  std::string const& version,
                                                  std::string const& arch,
                                                  bool start_after_install) {
    if (ErrorText const error = fetch_artifact(name, channel, version, arch)) {
        return PackageManagerReply::failure("fetch_install: " + *error);
    }
    return packages_.install(
        {name, version, arch, artifact_path(name, version, arch), start_after_install});
}

void MirelClientApp::serve_fetch_install() {
    if (!context().config().as_str(config::K_BOOTSTRAP_PACKAGE_LIST_PATH).empty()) {
        // That may have taken long, and somebody else may be there by now.
        addresses_.claim_registry_again(context().hub(), context().app_name());
    }
    registry_on_bus_ = connect_service("registry", addresses_.registry);
    registry_on_bus_->serve_record<FetchInstallRequest, PackageManagerReply>(
        "pkgmgr.fetch_install",
        [this](FetchInstallRequest const& request) {
            return fetch_install(request.name, request.channel, request.version, request.arch,
                                 request.start_after_install);
        },
        "Downloads a package's manifest+artifact from the configured mirelserver registry, then "
        "installs it - the one thing PackageManagerService's own topics deliberately don't do "
        "(they only ever touch already-local files)");
}

PackageUpdater::Steps MirelClientApp::update_steps() {
    using Request = PackageUpdater::Request;
    auto const download = [this](Request const& wanted) {
        return fetch_artifact(wanted.name, wanted.channel, wanted.version, wanted.arch)
            .value_or("");
    };
    auto const install = [this](Request const& wanted) {
        std::string const artifact = artifact_path(wanted.name, wanted.version, wanted.arch);
        return error_of(
            packages_.install({wanted.name, wanted.version, wanted.arch, artifact, false}));
    };
    auto const start = [this](Request const& wanted) {
        return error_of(packages_.start(wanted.name));
    };
    return {download, install, start};
}

void MirelClientApp::apply_bootstrap_package_list() {
    std::string const path = context().config().as_str(config::K_BOOTSTRAP_PACKAGE_LIST_PATH);
    if (path.empty()) {
        return;
    }
    std::optional<std::string> const text = tessaron::read_file(path);
    if (!text) {
        context().log().log(LogLevel::WARNING,
                            "bootstrap_package_list_path is set but couldn't open ", path,
                            " - skipping");
        return;
    }
    Value list;
    try {
        list = Value::parse(*text);
    } catch (std::exception const& error) {
        context().log().log(LogLevel::ERROR, "bootstrap package list at ", path,
                            " is not valid JSON: ", error.what());
        return;
    }
    for (Value const& entry : list.as_array()) {
        apply_bootstrap_entry(entry);
    }
}

void MirelClientApp::apply_bootstrap_entry(Value const& entry) {
    std::string const name = entry.at("name").as_string("");
    std::string const version = entry.at("version").as_string("");
    std::string const arch = entry.at("arch").as_string("");
    if (name.empty() || version.empty() || arch.empty()) {
        context().log().log(LogLevel::WARNING,
                            "bootstrap package list: skipping entry missing name/version/arch");
        return;
    }
    if (packages_.manifest(name).ok) {
        return; // Present, in whatever version: the list never upgrades.
    }
    context().log().log(LogLevel::INFO, "bootstrap: installing ", name, " ", version, " (", arch,
                        ")");
    PackageManagerReply const reply =
        fetch_install(name, entry.at("channel").as_string(""), version, arch, true);
    if (!reply.ok) {
        context().log().log(LogLevel::ERROR, "bootstrap: failed to install ", name, ": ",
                            reply.error);
    }
}

} // namespace mirelclient
