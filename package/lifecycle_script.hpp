#pragma once

#include <stop_token>
#include <string>

namespace tessaron {

/// One run of a package's own install.sh or uninstall.sh. The identity of the package reaches the
/// script as environment variables (MIREL_PACKAGE_NAME and its like).
struct LifecycleScript {
    std::string working_dir; ///< Where the script lies and runs.
    std::string script_name;
    std::string name;
    std::string version;
    std::string arch;
    std::string install_path; ///< The final place, which need not exist yet.
    std::string action;       ///< "install" or "uninstall".
};

/// Runs the script with `sh` (it needs no execute bit) and waits for its end, without a limit but
/// `stop`. It shares the daemon's standard streams. 0 means success; anything else, a script ended
/// by a signal and a shell that could not be started included, is failure.
///
/// Thread safety: safe from any thread.
[[nodiscard]] int run_lifecycle_script(LifecycleScript const& script,
                                       std::stop_token const& stop = {});

} // namespace tessaron
