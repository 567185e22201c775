#pragma once

#include <utility>

namespace tessaron {

/// Owns a file descriptor and closes it. -1 means none.
///
/// Everything this program opens, it opens by a call that sets close-on-exec itself, so
/// that child processes get descriptors 0, 1 and 2 and nothing else.
///
/// Thread safety: one thread at a time, the caller's duty.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd();

    int get() const noexcept { return fd_; }
    bool is_open() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    /// Closes what it holds and takes `fd`. Leaves `errno` alone.
    void reset(int fd = -1) noexcept;

private:
    int fd_ = -1;
};

} // namespace tessaron
