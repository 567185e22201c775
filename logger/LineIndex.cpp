#include "logger/LineIndex.hpp"

#include "logger/LineReader.hpp"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tessaron {

LogRange LineIndex::read(std::string const& path, int fd, std::uint64_t from, std::uint64_t to) {
    LogRange range;
    range.available = true;
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        return range;
    }
    from = std::max<std::uint64_t>(from, 1);

    Identity const file{path, status.st_dev, status.st_ino};
    LineIndexCheckpoint const start =
        start_of_scan(file, static_cast<std::uint64_t>(status.st_size), from);
    if (lseek(fd, static_cast<off_t>(start.offset), SEEK_SET) < 0) {
        return range;
    }

    // The scan runs on behind `to`, because the total is wanted.
    LineReader reader(fd, start.offset);
    std::vector<LineIndexCheckpoint> found;
    std::uint64_t count = start.line_number - 1;
    std::uint64_t line_offset = start.offset;
    while (auto const line = reader.next()) {
        ++count;
        if (count % K_LINES_PER_CHECKPOINT == 1) {
            found.push_back({count, line_offset});
        }
        if (count >= from && (to == 0 || count <= to)) {
            range.lines.emplace_back(*line);
        }
        line_offset = reader.offset();
    }
    remember(file, found, count, line_offset);

    range.total_lines = count;
    range.first_line = range.lines.empty() ? 0 : from;
    return range;
}

void LineIndex::forget() {
    MutexLock lock(mutex_);
    begin_locked({});
}

std::size_t LineIndex::checkpoint_count() const {
    MutexLock lock(mutex_);
    return checkpoints_.size();
}

LineIndexCheckpoint LineIndex::start_of_scan(Identity const& file, std::uint64_t size,
                                             std::uint64_t from) {
    MutexLock lock(mutex_);
    if (indexed_ != file || size < indexed_size_) {
        begin_locked(file);
    }
    auto const behind = std::upper_bound(
        checkpoints_.begin(), checkpoints_.end(), from,
        [](std::uint64_t line, LineIndexCheckpoint const& c) { return line < c.line_number; });
    return behind == checkpoints_.begin() ? LineIndexCheckpoint{1, 0} : *(behind - 1);
}

void LineIndex::begin_locked(Identity file) {
    indexed_ = std::move(file);
    checkpoints_.clear();
    indexed_line_count_ = 0;
    indexed_size_ = 0;
}

void LineIndex::remember(Identity const& file, std::vector<LineIndexCheckpoint> const& found,
                         std::uint64_t line_count, std::uint64_t size) {
    MutexLock lock(mutex_);
    // Another reader may have turned to another file meanwhile, or have come further in this one.
    if (indexed_ != file || line_count < indexed_line_count_ || size < indexed_size_) {
        return;
    }
    for (LineIndexCheckpoint const& checkpoint : found) {
        if (checkpoints_.empty() || checkpoint.line_number > checkpoints_.back().line_number) {
            checkpoints_.push_back(checkpoint);
        }
    }
    indexed_line_count_ = line_count;
    indexed_size_ = size;
}

} // namespace tessaron
