#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {

// crash.log, one record per crash, from its header line up to the next one:
//
//     === crash === signum=<n> pid=<n> ts=<s> ts_ms=<ms> addr=0x<hex> version=... build_ts=...
//         build_machine=... build_user=... commit=... build_type=... compiler=<blanks as "_">
//     <backtrace, a line per frame, 32 at most>
//     detail: <text>               only of an uncaught exception
//     --- recent activity ---      only of a signal, and then
//     <the trace, a line per entry>
//
// "addr" is there with a signal only. The writers stand in AppControl_signal_safe.cpp.

inline constexpr std::string_view K_CRASH_HEADER = "=== crash ===";
inline constexpr std::string_view K_CRASH_TRACE_HEADER = "--- recent activity ---";
inline constexpr std::string_view K_CRASH_DETAIL_PREFIX = "detail: ";
/// Frames that a record holds at most.
inline constexpr std::size_t K_CRASH_BACKTRACE_MAX = 32;
inline constexpr std::uint64_t K_CRASH_LOG_MAX_SIZE = 1'048'576;

/// One crash, without its trace (see `crash_trace_for_record`).
struct CrashRecord {
    int signum = 0; ///< 0 for an uncaught exception
    long pid = 0;
    std::int64_t ts = 0; ///< seconds since the Unix epoch
    std::int64_t ts_ms = 0;
    std::optional<std::uint64_t> addr; ///< the faulting address
    std::string detail;
    std::vector<std::string> backtrace;
    std::string version;
    std::string build_ts;
    std::string build_machine;
    std::string build_user;
    std::string commit;
    std::string build_type;
    std::string compiler; ///< with "_" for each blank
};

/// "0x" and hexadecimal digits; empty without an address.
std::string crash_address_text(CrashRecord const& record);

/// The header line of a record, without its newline.
std::string format_crash_header_line(CrashRecord const& record);

/// The newest `max_records` records of a crash log, oldest first, each with its first
/// `max_backtrace` frames; 0 means all, of either. A file that cannot be read has no records.
///
/// Thread safety: safe from any thread; a record being written at the same time may come short.
std::vector<CrashRecord> read_crash_history(std::string const& path, std::size_t max_records,
                                            std::size_t max_backtrace);

/// The trace lines of the record with that `pid` and `ts`; nothing if there is no such record. A
/// record without a trace has no lines.
std::optional<std::vector<std::string>> crash_trace_for_record(std::string const& path, long pid,
                                                               std::int64_t ts);
std::optional<std::vector<std::string>> crash_trace_for_record(std::string const& path,
                                                               CrashRecord const& record);

namespace detail {

/// Fills what the line tells into `record`; unknown keys and unreadable numbers are passed over.
/// False for a line that is no header.
bool parse_crash_header_line(std::string_view line, CrashRecord& record);

std::vector<CrashRecord> parse_crash_history_stream(std::istream& stream, std::size_t max_records,
                                                    std::size_t max_backtrace);

/// Drops the oldest records of a file larger than `K_CRASH_LOG_MAX_SIZE`, so that what is left is
/// not, or one record: a single one is never dropped. Call it before the file is opened for
/// writing; a file that cannot be read or written stays as it is.
void enforce_crash_log_max_size(std::string const& path);

} // namespace detail
} // namespace tessaron
