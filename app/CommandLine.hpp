#pragma once

#include "app/AppShell.hpp"

#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace tessaron {

/// The command line that every application has: --help, --version, --list-config, --bus-report,
/// --verbose and --instance-policy. An application adds its own options to `app()` before it runs.
///
/// Ownership: the options must outlive the object.
/// Thread safety: one thread at a time, the caller's duty.
class CommandLine {
public:
    /// What `parse` finds goes into `options`.
    CommandLine(std::string const& app_name, std::string const& app_description,
                std::string const& version, ShellOptions& options);
    ~CommandLine();
    CommandLine(CommandLine const&) = delete;
    CommandLine& operator=(CommandLine const&) = delete;

    CLI::App& app() { return *app_; }

    /// The exit code to end with, after --help, --version or a mistake has been answered on the
    /// standard streams; nothing if the program is to go on.
    std::optional<int> parse(int argc, char const* const* argv);

private:
    std::unique_ptr<CLI::App> app_;
};

} // namespace tessaron
