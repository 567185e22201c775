#pragma once

#include "app/utilities/TraceRing.hpp"
#include "logger/LogLevel.hpp"

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

/// Fills an entry whose former contents do not matter; returns how many of its bytes are of use.
/// The last byte of the entry becomes or stays NUL.
std::size_t fill_log_trace_entry(LogTraceEntry& entry, std::uint64_t timestamp, LogLevel level,
                                 std::string_view text) noexcept;

} // namespace detail

template <std::size_t N>
using LogTraceSnapshotOf = TraceSnapshot<LogTraceEntry, N>;

/// The last `N` messages.
///
/// Thread safety, errors: as `TraceRing`.
template <std::size_t N>
class LogTraceRingBuffer : public TraceRing<LogTraceEntry, N> {
public:
    void record(std::uint64_t timestamp, LogLevel level, std::string_view text) noexcept {
        LogTraceEntry entry;
        this->put(entry, detail::fill_log_trace_entry(entry, timestamp, level, text));
    }
};

} // namespace tessaron
