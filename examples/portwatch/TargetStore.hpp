#pragma once

#include "Target.hpp"

#include <string>
#include <vector>

namespace portwatch {

/// The database: which targets there are (table "targets"), and what was seen of them ("checks").
///
/// An operator may change any of it at any time, as `DbServer` lets him. So the file is opened for
/// each call and nothing is remembered: what a round sees is what stands there.
///
/// Thread safety: immutable after construction.
/// Errors: `tessaron::database::sqlite::SqliteError`.
class TargetStore {
public:
    /// Makes the file, its tables and two first targets, where they are missing. Throws
    /// `std::runtime_error` if there can be no such file.
    explicit TargetStore(std::string path);

    std::string const& path() const { return path_; }
    std::vector<Target> targets() const;
    /// Adds a row for each, and deletes the oldest rows beyond `keep`.
    void record(std::vector<Check> const& checks, long long keep) const;

private:
    std::string const path_;
};

} // namespace portwatch
