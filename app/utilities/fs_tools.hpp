#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <system_error>
#include <vector>

/// Thin file-system helpers. No exceptions: a failure is a false or empty result. Stateless, safe
/// from any thread.
namespace tessaron::fs_tools {

/// True for anything that `lstat` finds, a dangling symbolic link included.
bool path_exists(std::string const& path);
/// True for a directory itself; a symbolic link to one is not one.
bool is_dir(std::string const& path);
/// True for a regular file itself; a symbolic link to one is not one.
bool is_reg(std::string const& path);
/// The size in bytes through `stat` (links are followed); on failure 0 with `error` set.
std::uintmax_t file_size(std::string const& path, std::error_code& error);
/// Makes one directory, no parents. True if it is a directory afterwards, whoever made it.
bool make_dir_once(std::string const& path, mode_t mode);
/// What stands before the last "/", made absolute with the current directory.
std::string dir_name(std::string const& path);
/// What stands behind the last "/".
std::string file_name(std::string const& path);
/// `a` and `b` with one "/" between them; none is added if `a` is empty or ends in "/".
std::string join_path(std::string const& a, std::string const& b);
/// Names in a directory that begin with `prefix`, without "." and "..", in the order of `readdir`.
std::vector<std::string> list_dir_fs(std::string const& path, std::string const& prefix = "");
/// Names of the subdirectories of a directory, as above.
std::vector<std::string> list_dirs(std::string const& path);

} // namespace tessaron::fs_tools
