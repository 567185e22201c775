#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <memory>

/// Owners of libarchive's objects.
namespace mirelpack {

struct ReadArchiveFree {
    void operator()(archive* handle) const noexcept { archive_read_free(handle); }
};
using ReadArchive = std::unique_ptr<archive, ReadArchiveFree>;

struct WriteArchiveFree {
    /// Frees without finishing the file; `archive_write_close` does that, and can fail.
    void operator()(archive* handle) const noexcept {
        archive_write_fail(handle);
        archive_write_free(handle);
    }
};
using WriteArchive = std::unique_ptr<archive, WriteArchiveFree>;

struct ArchiveEntryFree {
    void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
using ArchiveEntry = std::unique_ptr<archive_entry, ArchiveEntryFree>;

} // namespace mirelpack
