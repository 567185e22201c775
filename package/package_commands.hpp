#pragma once

#include "package/lifecycle_script.hpp"

#include <string>

/// The shell commands of the package store: each is built here and nowhere else, with every value
/// quoted. Stateless, safe from any thread.
///
/// GNU tar itself reads backslash sequences such as \n or \101 in the directory it is given, so a
/// package whose name or version holds one is refused at its unpacking.
namespace tessaron::package_commands {

std::string make_directories(std::string const& path);
std::string remove_tree(std::string const& path);
/// Unpacks a gzip-compressed tar file.
std::string extract_artifact(std::string const& artifact, std::string const& directory);
/// Unpacks a tar file that is not compressed.
std::string extract_payload(std::string const& payload, std::string const& directory);
/// Prints the SHA-256 of a file with the first tool that works.
std::string digest(std::string const& path);
std::string lifecycle(LifecycleScript const& script);

} // namespace tessaron::package_commands
