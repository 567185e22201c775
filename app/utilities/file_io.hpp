#pragma once

#include "app/utilities/UniqueFd.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tessaron {

/// `open` with close-on-exec, repeated while a signal interrupts it. `errno` tells why it failed.
[[nodiscard]] UniqueFd open_file(std::string const& path, int flags, unsigned mode = 0644);

/// Marks every descriptor from 3 on that this process was started with close-on-exec, so that
/// what its parent left open does not reach its children either. One of the first three that is
/// closed is opened on /dev/null: otherwise the next file to be opened would get its number, and
/// with it all that is meant for a standard stream. Call it before any file is opened.
void take_charge_of_inherited_descriptors();

/// The whole of a file, or nothing if it cannot be opened or read.
[[nodiscard]] std::optional<std::string> read_file(std::string const& path);

/// Writes all bytes, going on after partial writes and interrupting signals. False on an error.
[[nodiscard]] bool write_all(int fd, std::string_view bytes);

/// Opens with `O_WRONLY | O_CREAT` and the given extra flags (`O_TRUNC`, `O_APPEND`) and writes.
/// False on an error, after which a part may have been written.
[[nodiscard]] bool write_file(std::string const& path, std::string_view bytes, int flags,
                              unsigned mode = 0644);

/// Replaces `path` in one step: writes `path` + `temporary_suffix`, syncs it to the disk, renames
/// it over `path` and syncs the directory. The permission bits of an existing `path` are kept.
///
/// False on a failure. `path` then holds its old contents and the temporary file is gone, unless
/// the directory alone could not be synced: then the new contents are in place, but might not
/// survive a power cut. A power cut at any moment leaves the old or the new contents, whole.
[[nodiscard]] bool replace_file_durably(std::string const& path, std::string_view bytes,
                                        std::string const& temporary_suffix = ".tmp");

} // namespace tessaron
