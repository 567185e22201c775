#pragma once

#include "tools/mirelpack/BuildId.hpp"
#include "tools/mirelpack/artifact_builder.hpp"

#include <string>

/// What each subcommand does and prints. They throw `PackError` and otherwise succeed.
namespace mirelpack {

void run_build(BuildRequest const& request);
void run_inspect(std::string const& artifact, bool as_json);
void run_publish(std::string const& registry, BuildId const& id, std::string const& artifact,
                 bool replace);
void run_list(std::string const& registry, std::string const& only_name);
void run_remove(std::string const& registry, BuildId const& id);

} // namespace mirelpack
