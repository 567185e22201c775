#pragma once

#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <optional>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

namespace tessaron {

/// An append-only file that does not give up: when a write fails, or the file turns out to have
/// been deleted, it is opened again by its path, and what still cannot be written goes to the
/// standard output stream instead ("degraded"). The next write tries the file first.
///
/// Writes into a file that was deleted succeed, and asking after each one would cost half as much
/// as the write. So the bytes are remembered until `confirm` has found the file still there; if it
/// is not, they are written again.
///
/// Unbuffered: each write of the stream is one write to the file. The descriptor is close-on-exec
/// from birth, which a standard file buffer could not promise.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: a write fails only if the standard output stream refuses the bytes too.
class ResilientFileBuffer final : public std::streambuf {
public:
    /// So many bytes are confirmed at the latest.
    static constexpr std::size_t K_UNCONFIRMED_LIMIT = 64 * 1024;

    /// Opens `path` for appending, and creates it if need be; look at `is_open` for the outcome.
    explicit ResilientFileBuffer(std::string path);

    bool is_open() const noexcept { return file_.is_open(); }
    bool is_degraded_to_console() const noexcept { return degraded_; }
    std::string const& path() const noexcept { return path_; }

    /// Size of the file; empty while it cannot be written.
    std::optional<std::uint64_t> size() const noexcept { return size_; }
    /// True once after the file was opened again and is written to, and so may hold other lines
    /// than those that were written before.
    bool take_reopened() noexcept { return !degraded_ && std::exchange(reopened_, false); }

    /// Makes sure that what was written stands in a file that still has a name.
    void confirm();
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
    bool open(int extra_flags);
    /// Writes `bytes` to the file, opened again if need be, or to the console; returns how many
    /// either took.
    std::streamsize put(std::string_view bytes);
    /// Writes all bytes; on failure what is left stays in `bytes`.
    bool write_to_file(std::string_view& bytes);

    std::string path_;
    UniqueFd file_;
    bool degraded_ = false;
    bool reopened_ = false;
    std::optional<std::uint64_t> size_;
    std::string unconfirmed_;
};

} // namespace tessaron
