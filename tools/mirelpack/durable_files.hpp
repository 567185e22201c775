#pragma once

#include <string>

/// File operations whose effect has reached the disk when they return. They throw `PackError`.
namespace mirelpack {

/// Makes the names in a directory as durable as the files behind them.
void sync_directory(std::string const& path);

/// Makes a directory and its parents (mode 0755).
void make_directories(std::string const& path);

/// Copies a file's bytes; `to` must not be in use.
void copy_file(std::string const& from, std::string const& to);

/// `rename`, and the sync of the directory that holds the new name.
void rename_durably(std::string const& from, std::string const& to);

/// True if both files can be read and hold the same bytes.
bool same_contents(std::string const& a, std::string const& b);

/// Removes a file or a tree; what is not there counts as removed.
void remove_tree(std::string const& path);

} // namespace mirelpack
