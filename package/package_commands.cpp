#include "package/package_commands.hpp"

#include "app/utilities/shell_quote.hpp"

#include <string_view>

namespace tessaron::package_commands {

namespace {

std::string quoted(std::string_view value) {
    return "'" + shell_quote(value) + "'";
}

} // namespace

std::string make_directories(std::string const& path) {
    return "mkdir -p " + quoted(path);
}

std::string remove_tree(std::string const& path) {
    return "rm -rf " + quoted(path);
}

std::string extract_artifact(std::string const& artifact, std::string const& directory) {
    return "tar -xzf " + quoted(artifact) + " -C " + quoted(directory);
}

std::string extract_payload(std::string const& payload, std::string const& directory) {
    return "tar -xf " + quoted(payload) + " -C " + quoted(directory);
}

std::string digest(std::string const& path) {
    return "( shasum -a 256 " + quoted(path) + " 2>/dev/null || sha256sum " + quoted(path) +
           " 2>/dev/null ) | cut -d' ' -f1";
}

std::string lifecycle(LifecycleScript const& script) {
    return "cd " + quoted(script.working_dir) + " && MIREL_PACKAGE_NAME=" + quoted(script.name) +
           " MIREL_PACKAGE_VERSION=" + quoted(script.version) +
           " MIREL_PACKAGE_ARCH=" + quoted(script.arch) +
           " MIREL_INSTALL_PATH=" + quoted(script.install_path) +
           " MIREL_PACKAGE_ACTION=" + quoted(script.action) + " sh " + quoted(script.script_name);
}

} // namespace tessaron::package_commands
