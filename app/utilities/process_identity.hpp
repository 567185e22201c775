#pragma once

#include <string>

namespace tessaron::detail {

/// Path of the running program, or empty when it cannot be told. It is read once, at the first
/// call, so that it stays the path to execute again after the file behind it was replaced.
std::string const& get_executable_path();

/// Password-database name of the effective user, or empty if there is none.
std::string get_username();

} // namespace tessaron::detail
