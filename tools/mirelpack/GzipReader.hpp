#pragma once

#include "app/utilities/file_io.hpp"

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct z_stream_s;

namespace mirelpack {

/// Reads a gzip file as `gzip -d` does, and refuses what `gzip -d` refuses: the checksum and the
/// length at the end of each member are verified, and only zeros may follow the last one. (The
/// gzip filter of libarchive skips those checks, so it would pass files that tar cannot extract.)
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError`, with a text that names no file; the caller adds it.
class GzipReader {
public:
    explicit GzipReader(std::string const& path);
    GzipReader(GzipReader const&) = delete;
    GzipReader& operator=(GzipReader const&) = delete;
    ~GzipReader();

    /// Number of bytes put into `out`; 0 only at the end of a whole, undamaged file.
    std::size_t read(std::span<char> out);

private:
    bool refill();
    void begin_next_member_or_end();

    tessaron::UniqueFd file_;
    std::vector<char> input_;
    std::unique_ptr<z_stream_s> stream_;
    bool member_seen_ = false;
    bool inside_member_ = false;
    bool ended_ = false;
};

} // namespace mirelpack
