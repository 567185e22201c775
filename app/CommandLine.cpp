#include "app/CommandLine.hpp"

#include "app/ColorHelpFormatter.hpp"
#include "app/build_info.hpp"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

namespace tessaron {

namespace {

constexpr char const* K_GENERAL = "General";
constexpr char const* K_DIAGNOSTICS = "Diagnostics";

std::string build_stamp_footer() {
    BuildStamp const& stamp = build_stamp();
    return std::string("Built: ") + "\n    Date: " + stamp.build_ts +
           "\n    Machine: " + stamp.build_machine + "\n    User: " + stamp.build_user +
           "\n    Commit: " + stamp.commit + "\n    Type: " + stamp.build_type +
           "\n    Compiler: " + stamp.compiler;
}

void add_instance_policy(CLI::App& app, InstancePolicy& policy) {
    std::map<std::string, InstancePolicy> const policies{{"warn", InstancePolicy::warn},
                                                         {"wait", InstancePolicy::wait},
                                                         {"kill", InstancePolicy::kill}};
    app.add_option("--instance-policy", policy,
                   "What to do if another instance of this app is already running: 'warn' (default "
                   "- report who's running and refuse to start), 'wait' (block until it exits, "
                   "then start), 'kill' (terminate it, then start)")
        ->transform(CLI::CheckedTransformer(policies, CLI::ignore_case))
        ->group(K_GENERAL);
}

} // namespace

CommandLine::CommandLine(std::string const& app_name, std::string const& app_description,
                         std::string const& version, ShellOptions& options)
    : app_(std::make_unique<CLI::App>(app_description, app_name)) {
    app_->formatter(std::make_shared<detail::ColorHelpFormatter>());
    app_->footer(build_stamp_footer());
    app_->get_help_ptr()->group(K_GENERAL);
    app_->set_version_flag("-v,--version", version, "Show version")->group(K_GENERAL);
    app_->add_flag("--list-config", options.list_config,
                   "Print every config field (name/type/description/default) and exit")
        ->group(K_DIAGNOSTICS);
    app_->add_flag("--bus-report", options.bus_report,
                   "Print a table of everything declared on the shared bus "
                   "(devices/publications/subscriptions) once startup is complete, then exit")
        ->group(K_DIAGNOSTICS);
    app_->add_flag("--verbose", options.verbose,
                   "Enable verbose output - mirrors the diagnostic log to the console in addition "
                   "to its file, and may also enable Derived's own protocol-level tracing (see "
                   "IsVerbose())")
        ->group(K_DIAGNOSTICS);
    add_instance_policy(*app_, options.instance_policy);
}

CommandLine::~CommandLine() = default;

std::optional<int> CommandLine::parse(int argc, char const* const* argv) {
    if (argc < 1 || argv == nullptr) {
        return std::nullopt;
    }
    try {
        app_->parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app_->exit(error, std::cout, std::cerr);
    }
    return std::nullopt;
}

} // namespace tessaron
