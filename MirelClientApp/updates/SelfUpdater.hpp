#pragma once

#include "MirelClientApp/remote/ErrorText.hpp"
#include "MirelClientApp/remote/RegistryClient.hpp"
#include "app/utilities/process_identity.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <functional>
#include <stop_token>
#include <string>

namespace mirelclient {

/// Replaces the running program's own file by a newer build from the registry, where the daemon is
/// published under a package name of its own, and asks for a restart. Nothing but the one
/// executable is taken from the artifact, and none of its scripts is run.
///
/// Until the new file is renamed over the program's nothing has changed; from then on there is no
/// way back. The work is done in "/tmp/mirelclient-self-update-<process id>", which is gone when an
/// update ends, and before the restart is asked for; the new file is staged beside the program.
///
/// Ownership: the registry client must outlive the object.
/// Thread safety: safe from any thread; one internal lock, held through a whole update, so that two
/// at once follow one another.
/// Errors: an `ErrorText`, or the `error` of a check. Nothing is logged.
class SelfUpdater {
public:
    /// Called on the updating thread, with the update's lock held, after a successful swap. It may
    /// block, but must not start an update or wait for one.
    using RequestRestart = std::function<void(std::string const& reason)>;

    struct CheckResult {
        bool update_available = false;
        std::string current_version;
        std::string latest_version; ///< Empty if none was found.
        std::string arch;
        std::string error; ///< Empty unless the check failed.
    };

    /// `program_path` is the file to replace; empty, when it cannot be told, makes updates fail.
    SelfUpdater(RegistryClient const& registry, std::string package_name, std::string arch,
                std::string current_version, RequestRestart request_restart,
                std::string program_path = tessaron::detail::get_executable_path());

    std::string const& arch() const noexcept { return arch_; }
    std::string const& current_version() const noexcept { return current_version_; }

    /// Asks the registry for the newest build of this architecture.
    [[nodiscard]] CheckResult check() const;
    /// Fetches, checks and swaps; blocks as long as the download takes.
    [[nodiscard]] ErrorText update_to(std::string const& version) TESSARON_EXCLUDES(update_mutex_);

    /// Ends the update in progress as failed, unless it has reached the swap, and makes all later
    /// ones fail. (The download ends with the registry client's own `request_stop`.)
    void request_stop();

private:
    /// A build's executable, unpacked and checked, or the reason why there is none.
    struct NewProgram {
        ErrorText error;
        std::string path;
    };

    /// All of an update but the restart.
    ErrorText replace_program(std::string const& version) const TESSARON_REQUIRES(update_mutex_);
    NewProgram unpack(std::string const& artifact, std::string const& directory) const;
    ErrorText swap(std::string const& new_program) const;
    /// Zero when the command succeeded; it did not when `request_stop` ended it.
    int shell(char const* command) const;

    RegistryClient const& registry_;
    std::string const package_name_;
    std::string const arch_;
    std::string const current_version_;
    RequestRestart const request_restart_;
    std::string const program_path_;
    std::stop_source stop_;
    tessaron::Mutex update_mutex_;
};

} // namespace mirelclient
