#include "MirelClientApp/updates/SelfUpdater.hpp"

#include "MirelClientApp/updates/semver.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/json_value.hpp"
#include "app/utilities/shell_command.hpp"
#include "app/utilities/shell_quote.hpp"
#include "package/package_commands.hpp"
#include "package/payload_digest.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace mirelclient {

namespace package_commands = tessaron::package_commands;
using tessaron::MutexLock;
using tessaron::json::Value;

namespace {

constexpr char const* K_CHANNEL = "main";
constexpr mode_t K_PROGRAM_MODE = 0755;

/// The directory of one update, with an empty "extract" in it. Its removal cannot be cancelled.
class WorkDirectory {
public:
    explicit WorkDirectory(std::stop_token const& stop) {
        remove(); // an update that was killed has left its own, and process numbers come again
        // Without the directory the download fails, and tells.
        std::ignore = tessaron::run_shell(package_commands::make_directories(extract()), stop);
    }
    ~WorkDirectory() { remove(); }
    WorkDirectory(WorkDirectory const&) = delete;
    WorkDirectory& operator=(WorkDirectory const&) = delete;

    std::string artifact() const { return path_ + "/artifact.tar.gz"; }
    std::string extract() const { return path_ + "/extract"; }

private:
    void remove() const { std::ignore = tessaron::run_shell(package_commands::remove_tree(path_)); }

    std::string const path_ = "/tmp/mirelclient-self-update-" + std::to_string(getpid());
};

bool is_regular_file(std::string const& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Archives come from elsewhere: what is no file, such as a named pipe that would block its reader,
// reads as empty.
std::string text_of_file(std::string const& path) {
    return is_regular_file(path) ? tessaron::read_file(path).value_or("") : "";
}

// Before the rename: a power cut must not leave the program's name with half its contents.
bool sync_to_disk(std::string const& path) {
    tessaron::UniqueFd const file = tessaron::open_file(path, O_RDONLY);
    return file.is_open() && fsync(file.get()) == 0;
}

std::string copy_command(std::string const& from, std::string const& to) {
    return "cp '" + tessaron::shell_quote(from) + "' '" + tessaron::shell_quote(to) + "'";
}

} // namespace

SelfUpdater::SelfUpdater(RegistryClient const& registry, std::string package_name, std::string arch,
                         std::string current_version, RequestRestart request_restart,
                         std::string program_path)
    : registry_(registry), package_name_(std::move(package_name)), arch_(std::move(arch)),
      current_version_(std::move(current_version)), request_restart_(std::move(request_restart)),
      program_path_(std::move(program_path)) {
}

SelfUpdater::CheckResult SelfUpdater::check() const {
    CheckResult result;
    result.current_version = current_version_;
    result.arch = arch_;
    auto const body = registry_.list_versions(package_name_, K_CHANNEL);
    if (!body) {
        result.error = "couldn't reach registry";
        return result;
    }
    Value versions;
    try {
        versions = Value::parse(*body).at("versions");
    } catch (std::exception const& error) {
        result.error = std::string("malformed registry response: ") + error.what();
        return result;
    }
    for (Value const& build : versions.as_array()) {
        std::string const version = build.at("version").as_string("");
        if (build.at("arch").as_string("") == arch_ &&
            (result.latest_version.empty() || is_semver_newer(version, result.latest_version))) {
            result.latest_version = version;
        }
    }
    if (result.latest_version.empty()) {
        result.error = "no build for arch \"" + arch_ + "\" found in registry";
        return result;
    }
    result.update_available = is_semver_newer(result.latest_version, current_version_);
    return result;
}

ErrorText SelfUpdater::update_to(std::string const& version) {
    MutexLock const lock(update_mutex_);
    if (ErrorText error = replace_program(version)) {
        return error;
    }
    request_restart_("self-update " + current_version_ + " -> " + version);
    return std::nullopt;
}

void SelfUpdater::request_stop() {
    stop_.request_stop();
}

ErrorText SelfUpdater::replace_program(std::string const& version) const {
    if (program_path_.empty()) {
        return "couldn't resolve this process's own executable path";
    }
    WorkDirectory const work(stop_.get_token());
    if (ErrorText error =
            registry_.fetch_artifact(package_name_, K_CHANNEL, version, arch_, work.artifact())) {
        return error;
    }
    NewProgram const program = unpack(work.artifact(), work.extract());
    return program.error ? program.error : swap(program.path);
}

SelfUpdater::NewProgram SelfUpdater::unpack(std::string const& artifact,
                                            std::string const& directory) const {
    if (shell(package_commands::extract_artifact(artifact, directory).c_str()) != 0) {
        return {"tar extraction failed", {}};
    }
    Value manifest;
    try {
        manifest = Value::parse(text_of_file(directory + "/manifest.json"));
    } catch (std::exception const& error) {
        return {std::string("malformed manifest: ") + error.what(), {}};
    }
    std::string const payload = directory + "/payload.tar";
    if (!is_regular_file(payload)) {
        return {"archive has no payload.tar", {}};
    }
    std::string const digest = manifest.at("sha256").as_string("");
    if (!digest.empty() && tessaron::sha256_of_file(payload, stop_.get_token()) != digest) {
        return {"checksum mismatch - refusing to install a corrupt/tampered update", {}};
    }
    std::string const executable = manifest.at("executable").as_string("");
    if (executable.empty()) {
        return {"manifest has no \"executable\" field", {}};
    }
    if (shell(package_commands::extract_payload(payload, directory).c_str()) != 0) {
        return {"payload.tar extraction failed", {}};
    }
    std::string program = directory + "/" + executable;
    if (!is_regular_file(program)) {
        return {"manifest's \"executable\" (" + executable + ") not found in the artifact", {}};
    }
    return {std::nullopt, std::move(program)};
}

ErrorText SelfUpdater::swap(std::string const& new_program) const {
    // Beside the program: a rename from another file system would not be one step, or not work.
    std::string const staged = program_path_ + ".new";
    bool const copied = shell(copy_command(new_program, staged).c_str()) == 0;
    // Whoever may make the copy may also set its mode: a failure means that there is none.
    std::ignore = chmod(staged.c_str(), K_PROGRAM_MODE);
    if (!copied || !sync_to_disk(staged)) {
        std::remove(staged.c_str());
        return "couldn't stage the new binary next to " + program_path_;
    }
    if (std::rename(staged.c_str(), program_path_.c_str()) != 0) {
        int const reason = errno;
        std::remove(staged.c_str());
        return std::string("rename() failed: ") + std::strerror(reason);
    }
    return std::nullopt;
}

int SelfUpdater::shell(char const* command) const {
    return tessaron::run_shell(command, stop_.get_token());
}

} // namespace mirelclient
