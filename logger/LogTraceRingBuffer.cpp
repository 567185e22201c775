#include "logger/LogTraceRingBuffer.hpp"

namespace tessaron::detail {

std::size_t fill_log_trace_entry(LogTraceEntry& entry, std::uint64_t timestamp, LogLevel level,
                                 std::string_view text) noexcept {
    entry.timestamp = timestamp;
    entry.level = level;
    std::size_t const length = copy_truncated(entry.text, LogTraceEntry::K_TEXT_SIZE, text);
    return offsetof(LogTraceEntry, text) + length + 1;
}

} // namespace tessaron::detail
