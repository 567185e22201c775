#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The backups of a log file: "app.log.N" beside "app.log", a higher N being more recent. A number
/// is never used again and never changed, so that it names the same lines for ever.
///
/// Thread safety: stateless. Errors: a directory that cannot be read has no backups.
namespace tessaron::log_generations {

std::string backup_path(std::string const& path, std::uint64_t generation);

/// Numbers of the backups that exist, in no order.
std::vector<std::uint64_t> existing(std::string const& path);

/// The number behind the highest that exists, or 0 when there is none.
std::uint64_t next(std::string const& path);

/// Deletes the oldest backups, so that `keep` are left; a `keep` of 0 keeps all.
void prune(std::string const& path, std::uint64_t keep);

} // namespace tessaron::log_generations
