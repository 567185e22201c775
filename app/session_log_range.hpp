#pragma once

#include "app/session_history.hpp"
#include "logger/Logger.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessaron {

/// A place in the diagnostic log across its rotations.
struct LogPosition {
    std::uint64_t generation = 0;
    std::uint64_t line = 0; ///< counted from 1 within the generation
};

/// The part of the diagnostic log that belongs to one session; both ends are included.
struct SessionLogRange {
    LogPosition first;
    LogPosition last;
};

/// What could be read of a range, and what is gone.
struct SessionLogText {
    std::vector<std::string> lines;
    /// "generation N no longer retained" for each such generation, joined by "; "; empty if whole.
    std::string missing;
};

/// From the start's position up to the stop's. A stop line of the crash handler tells no position:
/// then the log is searched for the last line not later than the crash (looked up in `crash_log`).
/// Without a stop the session reaches to the log's present end. Nothing where the start line tells
/// no position.
///
/// Thread safety: safe from any thread but the logger's own: it waits for the log's writer.
std::optional<SessionLogRange> resolve_session_log_range(Logger& logger,
                                                         std::string const& crash_log,
                                                         SessionRecord const& start,
                                                         std::optional<SessionRecord> const& stop);

SessionLogText read_session_log(Logger& logger, SessionLogRange const& range);

/// The last line of a generation that was logged at `ts_ms` (milliseconds since the Unix epoch) or
/// before; 0 if there is none.
std::uint64_t find_log_line_at_or_before(Logger& logger, std::uint64_t generation,
                                         std::int64_t ts_ms);

namespace detail {

/// When a line of the log was logged, in milliseconds since the Unix epoch; nothing for a line that
/// begins otherwise (the second line of a message, say).
std::optional<std::int64_t> parse_app_log_line_timestamp_ms(std::string const& line);

} // namespace detail
} // namespace tessaron
