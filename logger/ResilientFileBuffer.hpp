#pragma once

#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <optional>
#include <streambuf>
#include <string>
#include <string_view>

namespace tessaron {

/// An append-only file that does not give up: when a write fails, or the file turns out to have
/// been deleted, it is opened again by its path, and what still cannot be written goes to the
/// standard output stream instead ("degraded"). The next write tries the file first.
///
/// Unbuffered: each write of the stream is one write to the file. The descriptor is close-on-exec
/// from birth, which a standard file buffer could not promise.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: a write fails only if the standard output stream refuses the bytes too.
class ResilientFileBuffer final : public std::streambuf {
public:
    /// Opens `path` for appending, and creates it if need be; look at `is_open` for the outcome.
    explicit ResilientFileBuffer(std::string path);

    bool is_open() const noexcept { return file_.is_open(); }
    bool is_degraded_to_console() const noexcept { return degraded_; }
    std::string const& path() const noexcept { return path_; }

    /// Size of the file after the last write to it; empty when that write did not succeed.
    std::optional<std::uint64_t> size_after_write() const noexcept { return size_after_write_; }

    bool reopen();
    /// Renames the file to `backup_path` and begins a new one. False if either step failed; the
    /// buffer then goes on with whatever stands at its path.
    [[nodiscard]] bool rotate(std::string const& backup_path);
    /// Empties the file.
    bool truncate();
    /// Appends all that the file at `source_path` holds. A failure leaves this file as long as it
    /// was.
    [[nodiscard]] bool append_contents_of(std::string const& source_path);

protected:
    std::streamsize xsputn(char const* bytes, std::streamsize count) override;
    int_type overflow(int_type character) override;
    int sync() override;

private:
    /// Writes all bytes to a file that still has a name; on failure what is left stays in `bytes`.
    bool write_to_file(std::string_view& bytes);

    std::string path_;
    UniqueFd file_;
    bool degraded_ = false;
    std::optional<std::uint64_t> size_after_write_;
};

} // namespace tessaron
