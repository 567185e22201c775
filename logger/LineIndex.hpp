#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tessaron {

/// Lines read back from a log file.
struct LogRange {
    std::uint64_t total_lines = 0;  ///< in the whole file
    std::uint64_t first_line = 0;   ///< number of the first of `lines`, from 1; 0 if there is none
    std::vector<std::string> lines; ///< without newlines
    bool available = false;         ///< false: the generation asked for does not exist any more
};

/// Where a line starts in a file.
struct LineIndexCheckpoint {
    std::uint64_t line_number = 0; ///< from 1
    std::uint64_t offset = 0;
};

/// Reads ranges of lines from a log file that grows, and is asked for its latest lines again and
/// again, without counting from its beginning each time: the start of every 256th line of the file
/// read last is remembered.
///
/// The checkpoints are good as long as it is the same file (path, device and inode) and it has not
/// become shorter; a log file is only ever appended to, renamed or emptied.
///
/// Thread safety: safe from any thread; one internal lock, not held while the file is read.
/// Errors: a file that cannot be read has no lines.
class LineIndex {
public:
    static constexpr std::uint64_t K_LINES_PER_CHECKPOINT = 256;

    /// Lines `from` to `to` of the file behind the descriptor `fd`, counted from 1, both included;
    /// a `from` of 0 means 1, a `to` of 0 the end. `path` is the name the file was opened by. The
    /// range is always `available`.
    LogRange read(std::string const& path, int fd, std::uint64_t from, std::uint64_t to)
        TESSARON_EXCLUDES(mutex_);

    /// For when the file was emptied, and may grow beyond its former size before it is read again.
    void forget() TESSARON_EXCLUDES(mutex_);

    /// Number of checkpoints held at present.
    std::size_t checkpoint_count() const TESSARON_EXCLUDES(mutex_);

private:
    struct Identity {
        std::string path;
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(Identity const&) const = default;
    };

    void begin_locked(Identity file) TESSARON_REQUIRES(mutex_);
    /// The nearest checkpoint not behind line `from`; forgets all of them if they are of another
    /// file, or of a longer state of this one.
    LineIndexCheckpoint start_of_scan(Identity const& file, std::uint64_t size, std::uint64_t from)
        TESSARON_EXCLUDES(mutex_);
    void remember(Identity const& file, std::vector<LineIndexCheckpoint> const& found,
                  std::uint64_t line_count, std::uint64_t size) TESSARON_EXCLUDES(mutex_);

    mutable Mutex mutex_;
    Identity indexed_ TESSARON_GUARDED_BY(mutex_);
    std::vector<LineIndexCheckpoint> checkpoints_ TESSARON_GUARDED_BY(mutex_);
    std::uint64_t indexed_line_count_ TESSARON_GUARDED_BY(mutex_) = 0;
    std::uint64_t indexed_size_ TESSARON_GUARDED_BY(mutex_) = 0;
};

} // namespace tessaron
