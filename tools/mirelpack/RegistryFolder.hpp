#pragma once

#include "tools/mirelpack/BuildId.hpp"
#include "tools/mirelpack/RegistryIndex.hpp"
#include "tools/mirelpack/RegistryPaths.hpp"

#include <optional>
#include <string>
#include <vector>

namespace mirelpack {

struct PublishResult {
    bool already_there = false; ///< The same bytes were published before; nothing changed.
    std::vector<std::string> warnings;
};

/// Publishes builds into a registry folder and removes them, while any web server serves it.
///
/// A build's life, and what a kill at any moment leaves:
///
///     staged  -- copied to .incoming, synced, checked        (swept by the next holder)
///     placed  -- one rename of its folder                     (the journal names it: finished by
///                                                             the next holder)
///     listed  -- versions.json, channels.json, packages.json  (the same)
///     marked  -- a tombstone hides it from the indexes        (its removal is finished by the
///                                                             next holder)
///     gone    -- moved to .incoming in one rename, deleted    (swept by the next holder)
///
/// So a listed build is always whole, and whoever takes the lock first puts the folder in order.
///
/// Thread safety: safe from any number of processes (see `RegistryLock`); one object is for one
/// thread at a time.
/// Errors: `PackError`.
class RegistryFolder {
public:
    explicit RegistryFolder(std::string root);

    /// Makes the folder if it is missing. A build that is published with other bytes already is an
    /// error unless `replace` is set; then the artifact changes in one rename, and its manifest and
    /// the index follow.
    PublishResult publish(BuildId const& id, std::string const& artifact, bool replace);
    void remove(BuildId const& id);
    /// Needs no lock. `only_name` empty: all packages.
    std::vector<BuildId> list(std::string const& only_name) const;

private:
    std::optional<BuildId> read_journal() const;
    void recover();
    void finish_removal(BuildId const& id);
    void refresh_manifest(BuildId const& id);
    void place_new(BuildId const& id);
    void place_over(BuildId const& id);
    void write_journal(BuildId const& id);
    void end_change(BuildId const& id);
    bool is_whole(BuildId const& id) const;
    void require_folder() const;

    RegistryPaths paths_;
    RegistryIndex index_;
};

} // namespace mirelpack
