#include "tools/mirelpack/commands.hpp"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

namespace {

constexpr char const* K_EXAMPLES = R"(Examples:
  mirelpack build ./hello --executable bin/hello --description "Says hello" -o hello.tar.gz
  mirelpack inspect hello.tar.gz
  mirelpack publish hello.tar.gz --registry ./registry \
      --name hello --channel main --version 1.0.0 --arch linux-x86_64
  mirelpack list --registry ./registry
  mirelpack remove --registry ./registry \
      --name hello --channel main --version 1.0.0 --arch linux-x86_64

A registry is a plain folder; mirelserver or any static web server can serve it.)";

struct Arguments {
    mirelpack::BuildRequest build;
    std::string artifact;
    bool as_json = false;
    bool replace = false;
    std::string registry;
    std::string only_name;
    mirelpack::BuildId id;
};

void add_registry(CLI::App& command, Arguments& arguments) {
    command.add_option("--registry", arguments.registry, "The registry folder")->required();
}

void add_build_id(CLI::App& command, Arguments& arguments) {
    add_registry(command, arguments);
    command.add_option("--name", arguments.id.name, "Package name")->required();
    command.add_option("--channel", arguments.id.channel, "Channel, for instance main")->required();
    command.add_option("--version", arguments.id.version, "Version, for instance 1.2.3")
        ->required();
    command.add_option("--arch", arguments.id.arch, "Architecture, for instance linux-x86_64")
        ->required();
}

void add_build(CLI::App& app, Arguments& arguments) {
    auto* const command = app.add_subcommand("build", "Make an artifact of a folder");
    command->add_option("DIR", arguments.build.folder, "Folder whose contents are packed")
        ->required();
    command
        ->add_option("--executable", arguments.build.executable,
                     "The program to run, relative to DIR")
        ->required();
    command->add_option("--description", arguments.build.description,
                        "Shown where a version is chosen");
    command->add_option("-o,--output", arguments.build.output, "The artifact to write")->required();
    command->footer("install.sh and uninstall.sh at the top of DIR are run when the package is "
                    "installed and removed.");
    command->callback([&arguments] { mirelpack::run_build(arguments.build); });
}

void add_inspect(CLI::App& app, Arguments& arguments) {
    auto* const command = app.add_subcommand("inspect", "Check an artifact and tell what it holds");
    command->add_option("FILE", arguments.artifact, "The artifact")->required();
    command->add_flag("--json", arguments.as_json, "Print one JSON object");
    command->callback(
        [&arguments] { mirelpack::run_inspect(arguments.artifact, arguments.as_json); });
}

void add_publish(CLI::App& app, Arguments& arguments) {
    auto* const command =
        app.add_subcommand("publish", "Check an artifact and put it into a registry folder");
    command->add_option("FILE", arguments.artifact, "The artifact")->required();
    add_build_id(*command, arguments);
    command->add_flag("--replace", arguments.replace,
                      "Publish over a build that has other contents");
    command->callback([&arguments] {
        mirelpack::run_publish(arguments.registry, arguments.id, arguments.artifact,
                               arguments.replace);
    });
}

void add_list(CLI::App& app, Arguments& arguments) {
    auto* const command = app.add_subcommand("list", "List the builds of a registry folder");
    add_registry(*command, arguments);
    command->add_option("--name", arguments.only_name, "Only this package");
    command->callback(
        [&arguments] { mirelpack::run_list(arguments.registry, arguments.only_name); });
}

void add_remove(CLI::App& app, Arguments& arguments) {
    auto* const command = app.add_subcommand("remove", "Take a build out of a registry folder");
    add_build_id(*command, arguments);
    command->callback([&arguments] { mirelpack::run_remove(arguments.registry, arguments.id); });
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Makes package artifacts and publishes them into a registry folder.", "mirelpack");
    app.set_version_flag("--version", "mirelpack " MIREL_VERSION);
    app.footer(K_EXAMPLES);
    app.require_subcommand(1);
    Arguments arguments;
    add_build(app, arguments);
    add_inspect(app, arguments);
    add_publish(app, arguments);
    add_list(app, arguments);
    add_remove(app, arguments);
    try {
        app.parse(argc, argv); // runs the command
        return std::fflush(stdout) == 0 ? 0 : 1;
    } catch (CLI::ParseError const& error) {
        return app.exit(error);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "mirelpack: %s\n", error.what());
        return 1;
    }
}
