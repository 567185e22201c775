#include "tools/mirelpack/commands.hpp"

#include "app/utilities/json_value.hpp"
#include "tools/mirelpack/Progress.hpp"
#include "tools/mirelpack/RegistryFolder.hpp"
#include "tools/mirelpack/artifact_format.hpp"
#include "tools/mirelpack/artifact_inspector.hpp"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace mirelpack {

using tessaron::json::Value;

namespace {

void print_warnings(std::vector<std::string> const& warnings) {
    for (auto const& warning : warnings) {
        std::fprintf(stderr, "mirelpack: warning: %s\n", warning.c_str());
    }
}

Value facts_as_json(ArtifactFacts const& facts) {
    return Value::Object{
        {"description", facts.description},
        {"executable", facts.executable},
        {"files", static_cast<double>(facts.file_count)},
        {"has_install_script", facts.has_install_script},
        {"has_uninstall_script", facts.has_uninstall_script},
        {"manifest", facts.manifest},
        {"payload_size", static_cast<double>(facts.payload_size)},
        {"sha256", facts.sha256},
    };
}

std::string scripts_of(ArtifactFacts const& facts) {
    std::string scripts = facts.has_install_script ? K_INSTALL_SCRIPT : "";
    if (facts.has_uninstall_script) {
        scripts += scripts.empty() ? "" : ", ";
        scripts += K_UNINSTALL_SCRIPT;
    }
    return scripts.empty() ? "none" : scripts;
}

void print_row(char const* label, std::string const& value) {
    std::printf("%-12s %s\n", label, value.c_str());
}

} // namespace

void run_build(BuildRequest const& request) {
    BuildResult const result = build_artifact(request);
    print_warnings(result.warnings);
    std::printf("%s\npayload sha256 %s\n", request.output.c_str(), result.sha256.c_str());
}

void run_inspect(std::string const& artifact, bool as_json) {
    ArtifactFacts const facts = inspect_artifact(artifact, artifact);
    print_warnings(facts.warnings);
    if (as_json) {
        std::printf("%s\n", facts_as_json(facts).dump().c_str());
        return;
    }
    print_row("description", facts.description.empty() ? "none" : facts.description);
    print_row("executable", facts.executable);
    print_row("sha256", facts.sha256);
    print_row("payload", readable_size(facts.payload_size));
    print_row("files", std::to_string(facts.file_count));
    print_row("scripts", scripts_of(facts));
}

void run_publish(std::string const& registry, BuildId const& id, std::string const& artifact,
                 bool replace) {
    PublishResult const result = RegistryFolder(registry).publish(id, artifact, replace);
    print_warnings(result.warnings);
    std::printf(result.already_there ? "already published: %s\n" : "published: %s\n",
                id.text().c_str());
}

void run_list(std::string const& registry, std::string const& only_name) {
    std::vector<BuildId> builds = RegistryFolder(registry).list(only_name);
    if (builds.empty()) {
        return;
    }
    builds.insert(builds.begin(), {"NAME", "CHANNEL", "VERSION", "ARCH"});
    std::size_t name_width = 0;
    std::size_t channel_width = 0;
    std::size_t version_width = 0;
    for (auto const& build : builds) {
        name_width = std::max(name_width, build.name.size());
        channel_width = std::max(channel_width, build.channel.size());
        version_width = std::max(version_width, build.version.size());
    }
    for (auto const& build : builds) {
        std::printf("%-*s  %-*s  %-*s  %s\n", static_cast<int>(name_width), build.name.c_str(),
                    static_cast<int>(channel_width), build.channel.c_str(),
                    static_cast<int>(version_width), build.version.c_str(), build.arch.c_str());
    }
}

void run_remove(std::string const& registry, BuildId const& id) {
    RegistryFolder(registry).remove(id);
    std::printf("removed: %s\n", id.text().c_str());
}

} // namespace mirelpack
