#pragma once

#include "package/package_records.hpp"

#include <string>

/// The list of installed packages on disk: a JSON array with one object per package, in map order.
///
///     administratively_stopped  boolean
///     arch                      string
///     install_path              string
///     launch_args               array of strings
///     manifest                  any
///     name                      string
///     version                   string
///
/// Stateless, safe from any thread; one writer per file, the caller's duty.
namespace tessaron::registry_file {

std::string to_text(PackageEntries const& entries);

/// Never fails: a missing key reads as its default, text that is not JSON as an empty list, and a
/// later element replaces an earlier one of the same name.
PackageEntries from_text(std::string const& text);

/// An absent or unreadable file is an empty store.
PackageEntries load(std::string const& path);

/// Replaces the file in one step by way of `path` + ".tmp". False if it holds its old contents.
[[nodiscard]] bool save(std::string const& path, PackageEntries const& entries);

} // namespace tessaron::registry_file
