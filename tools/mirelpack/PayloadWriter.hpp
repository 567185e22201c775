#pragma once

#include "tools/mirelpack/PayloadIndex.hpp"
#include "tools/mirelpack/Progress.hpp"
#include "tools/mirelpack/Sha256.hpp"
#include "tools/mirelpack/archive_handles.hpp"

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace mirelpack {

/// Writes the contents of a folder as an uncompressed tar and takes its SHA-256 on the way.
///
/// Members stand in byte order of their names and carry nothing that changes between two runs
/// (no access times, whole seconds), so that the same tree gives the same bytes. GNU's tar format
/// is used because it stores names as plain bytes of any length, which every tar unpacks.
/// Owners, modes, links and empty folders are kept; a hole of a sparse file is stored as zeros.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError`; the file is then worthless.
class PayloadWriter {
public:
    /// True for a path (as found on the disk) that stays out of the tar.
    using Skip = std::function<bool(std::string const& path)>;

    /// Writes to `fd`, which must outlive the writer.
    PayloadWriter(int fd, Skip skip);

    void add_contents_of(std::string const& folder);
    /// Ends the tar; the SHA-256 of all that was written.
    std::string finish();

    std::uint64_t size() const { return size_; }
    /// The newest time of modification of all members.
    std::time_t newest() const { return newest_; }
    PayloadIndex const& index() const { return index_; }
    /// What could not be stored and was left out, one sentence each.
    std::vector<std::string> const& warnings() const { return warnings_; }

private:
    static la_ssize_t write_callback(archive*, void* self, void const* bytes, std::size_t size);

    void add_folder(std::string const& path, std::string const& member);
    void add(std::string const& path, std::string const& member);
    void add_file(std::string const& path, std::string const& member);
    void add_link(std::string const& path, std::string const& member, struct stat const& info);
    ArchiveEntry describe(std::string const& member, struct stat const& info);
    void write_header(archive_entry* entry, std::string const& path);
    void copy_bytes(int fd, std::uint64_t size, std::string const& path);

    int fd_;
    Skip skip_;
    Sha256 digest_;
    std::uint64_t size_ = 0;
    std::time_t newest_ = 0;
    PayloadIndex index_;
    std::vector<std::string> warnings_;
    std::map<std::pair<dev_t, ino_t>, std::string> hard_links_; ///< First member of each.
    std::vector<char> buffer_;
    Progress progress_;
    ReadArchive owner_names_; ///< Looks up and caches the names of owners.
    WriteArchive tar_;
};

} // namespace mirelpack
