#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace mirelserver {

/// What one stream of a tunnel brought and nobody has taken yet.
///
/// A tunnel has no flow control of its own: a reader that is slower than its machine would either
/// hold up all streams of the machine or fill the memory. So the buffer has a limit, and beyond it
/// this one stream ends.
///
/// Ownership: shares `total`, the sum over all buffers of a tunnel.
/// Thread safety: safe from any thread; one internal lock, never held while a handler runs.
/// Errors: `put` tells.
class StreamBuffer {
public:
    using Handler = std::function<void(std::string bytes)>;
    using Total = std::shared_ptr<std::atomic<std::size_t>>;

    static constexpr std::size_t K_MAX_SIZE = std::size_t{64} * 1024 * 1024;
    static constexpr std::size_t K_MAX_TOTAL = std::size_t{256} * 1024 * 1024;
    /// What a piece costs besides its bytes: a flood of tiny frames is to reach the limit too.
    static constexpr std::size_t K_PIECE_COST = 64;

    explicit StreamBuffer(Total total) : total_(std::move(total)) {}
    StreamBuffer(StreamBuffer const&) = delete;
    StreamBuffer& operator=(StreamBuffer const&) = delete;
    ~StreamBuffer();

    /// False if the buffer is over a limit: it has then ended and dropped what it held.
    [[nodiscard]] bool put(std::string bytes) TESSARON_EXCLUDES(mutex_);
    /// Nothing more will come; what is there can still be taken.
    void end() TESSARON_EXCLUDES(mutex_);
    /// Calls `handler` once with the next piece, now or when it is there; with nothing at the end.
    void take(Handler handler) TESSARON_EXCLUDES(mutex_);

private:
    void drop_all_locked() TESSARON_REQUIRES(mutex_);

    Total const total_;
    tessaron::Mutex mutex_;
    std::deque<std::string> pieces_ TESSARON_GUARDED_BY(mutex_);
    std::size_t size_ TESSARON_GUARDED_BY(mutex_) = 0;
    bool ended_ TESSARON_GUARDED_BY(mutex_) = false;
    Handler waiting_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace mirelserver
