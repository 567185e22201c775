#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {

// sessions.log, one line per start and stop, appended and never pruned. Fields are parted by single
// blanks and not quoted; the free texts stand last:
//
//     event=start ts=<s> pid=<n> exe=<path> user=<name> cwd=<path> log_line=<n> generation=<n>
//         runtime=<text> args=<argument>|<argument>...
//     event=stop ts=<s> pid=<n> duration_s=<n> log_line=<n> generation=<n> runtime=<text>
//         reason=<text>
//
// A start line without a stop line of the same pid behind it is a process that was killed, or one
// that runs still.

/// One line of the history.
struct SessionRecord {
    bool is_start = false;
    std::chrono::system_clock::time_point ts; ///< Whole seconds in the file.
    long pid = 0;
    std::string exe;                    ///< of a start
    std::string user;                   ///< of a start
    std::string cwd;                    ///< of a start
    std::vector<std::string> args;      ///< of a start, without the program's name
    std::uint64_t log_line = 0;         ///< Lines in the log's file at that moment.
    std::uint64_t generation = 0;       ///< Of the log's file at that moment.
    std::chrono::seconds duration_s{0}; ///< of a stop
    std::string reason;                 ///< of a stop
    std::string runtime;                ///< The application's own state; empty where it has none.
};

/// One line, without its newline. A line break within a value becomes a blank, since a record must
/// stay one line, whatever an argument or a reason holds.
std::string format_session_start(SessionRecord const& record);
std::string format_session_stop(SessionRecord const& record);

/// Nothing for a line that is neither a start nor a stop, that has no time or no pid, or that has a
/// number that cannot be read.
///
/// The free texts are taken as they stand: `runtime` ends at the first " args=" or " reason="
/// behind it, and what follows that reaches to the end of the line, so that an argument may hold
/// blanks and a reason anything. A "|" within an argument makes two of it.
std::optional<SessionRecord> parse_session_line(std::string_view line);

/// Appends the line and a newline in one write. A half-written last line of an earlier process is
/// ended first, so that it does not swallow this one. False if the file could not be written.
[[nodiscard]] bool append_session_line(std::string const& path, std::string_view line);

/// The newest `max` records, oldest first; a `max` of 0 means all. Reads from the file's end, so
/// that its length does not matter. A file that cannot be read has no records.
///
/// Thread safety: safe from any thread; a line being written at the same time may be missed.
std::vector<SessionRecord> read_session_history(std::string const& path, std::size_t max);

/// A start and, unless the process was killed or runs still, its stop.
struct Session {
    SessionRecord start;
    std::optional<SessionRecord> stop;
};

/// The last session of a pid, or of any, among records in the order of the file. A process that
/// replaced itself has several sessions under one pid.
std::optional<Session> find_last_session(std::vector<SessionRecord> const& records,
                                         std::optional<long> pid = std::nullopt);

} // namespace tessaron
