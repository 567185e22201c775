#pragma once

#include "app/utilities/file_io.hpp"

#include <string>
#include <string_view>

namespace mirelpack {

/// A file that is written out of sight and appears under its name only when it is whole.
///
/// Where the file system allows it the file has no name at all until `commit`, so that not even a
/// killed process leaves anything behind; elsewhere it has a name that begins with `K_PREFIX` in
/// the folder of its destination. Uncommitted, it vanishes with the object.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError`.
class StagedFile {
public:
    static constexpr std::string_view K_PREFIX = ".mirelpack-tmp-";

    /// `folder` must be on the file system of every name given to `commit`.
    explicit StagedFile(std::string folder);
    StagedFile(StagedFile const&) = delete;
    StagedFile& operator=(StagedFile const&) = delete;
    ~StagedFile();

    /// Open for reading and writing.
    int fd() const { return file_.get(); }
    /// Syncs the file to the disk and renames it over `path`, which is in `folder`.
    void commit(std::string const& path);

private:
    std::string folder_;
    std::string name_; ///< Empty while the file has no name.
    tessaron::UniqueFd file_;
};

} // namespace mirelpack
