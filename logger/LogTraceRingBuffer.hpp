#pragma once

#include "logger/LogLevel.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessaron {

/// One remembered message. Its text is always NUL-terminated.
struct LogTraceEntry {
    static constexpr std::size_t K_TEXT_SIZE = 200;

    std::uint64_t timestamp = 0; ///< microseconds since the Unix epoch
    LogLevel level = LogLevel::TRACE;
    char text[K_TEXT_SIZE] = {};
};

namespace detail {

/// Copies `text` and a NUL into `capacity` bytes; a text that has to be cut ends in "...".
/// Returns the number of bytes copied, without the NUL.
std::size_t copy_truncated(char* destination, std::size_t capacity, std::string_view text) noexcept;

/// Slots are written and read word by word with relaxed atomics: two threads may meet in a slot,
/// and then its contents may be mixed, but never more than that.
void write_slot(LogTraceEntry& slot, std::uint64_t timestamp, LogLevel level,
                std::string_view text) noexcept;
LogTraceEntry read_slot(LogTraceEntry const& slot) noexcept;

} // namespace detail

/// A copy of the slots, and the number of messages ever recorded: the next one would go to slot
/// `write_index % entries.size()`.
template <std::size_t N>
struct LogTraceSnapshotOf {
    std::array<LogTraceEntry, N> entries;
    std::uint64_t write_index = 0;
};

/// The last `N` messages, for crash and incident reports.
///
/// Fixed size, no lock, no allocation. A slot may be read while it is being written, which readers
/// accept.
///
/// Thread safety: safe from any thread. `raw_entries` and `raw_write_index` are async-signal-safe.
/// Errors: none.
template <std::size_t N>
class LogTraceRingBuffer {
public:
    void record(std::uint64_t timestamp, LogLevel level, std::string_view text) noexcept {
        std::uint64_t const index = write_index_.fetch_add(1, std::memory_order_relaxed);
        detail::write_slot(entries_[index % N], timestamp, level, text);
    }

    LogTraceSnapshotOf<N> snapshot() const noexcept {
        LogTraceSnapshotOf<N> copy;
        copy.write_index = raw_write_index();
        for (std::size_t i = 0; i < N; ++i) {
            copy.entries[i] = detail::read_slot(entries_[i]);
        }
        return copy;
    }

    LogTraceEntry const* raw_entries() const noexcept { return entries_.data(); }
    std::uint64_t raw_write_index() const noexcept {
        return write_index_.load(std::memory_order_relaxed);
    }

private:
    std::array<LogTraceEntry, N> entries_{};
    std::atomic<std::uint64_t> write_index_{0};
};

} // namespace tessaron
