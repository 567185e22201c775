#pragma once

#include "app/utilities/json_value.hpp"
#include "tools/mirelpack/BuildId.hpp"
#include "tools/mirelpack/RegistryPaths.hpp"

#include <string>
#include <vector>

namespace mirelpack {

/// The index files of a registry folder: made from what lies in the folder, never edited.
///
/// Writing needs the registry's lock; reading does not, as every index is replaced in one step.
///
/// Ownership: `paths` must outlive it.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError`.
class RegistryIndex {
public:
    explicit RegistryIndex(RegistryPaths const& paths) : paths_(paths) {}

    /// Writes the three indexes above a channel again, lowest first, so that what a reader finds
    /// in one exists in those below. A channel or package without builds loses its index.
    void rebuild(std::string const& name, std::string const& channel) const;

    /// All listed builds, or those of one package; by name and channel, newest version first.
    std::vector<BuildId> list(std::string const& only_name) const;

private:
    tessaron::json::Value::Array scan_channel(std::string const& name,
                                              std::string const& channel) const;
    std::vector<std::string> read_names(std::string const& path, char const* key) const;

    RegistryPaths const& paths_;
};

} // namespace mirelpack
