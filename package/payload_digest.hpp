#pragma once

#include <optional>
#include <stop_token>
#include <string>

namespace tessaron {

/// SHA-256 of a file as the system's own tool prints it: 64 lowercase hexadecimal digits. Nothing
/// if the file cannot be read, no tool is installed, or `stop` was requested.
///
/// Thread safety: safe from any thread.
[[nodiscard]] std::optional<std::string> sha256_of_file(std::string const& path,
                                                        std::stop_token const& stop = {});

} // namespace tessaron
