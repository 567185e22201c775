#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Reading back the incident reports of an application; incident_report.hpp writes them.
///
/// Stateless, safe from any thread; a report that is being written at the same time may come short.
namespace tessaron {

// A report's name is "incident-" + milliseconds since the Unix epoch + ".txt".
inline constexpr std::string_view K_INCIDENT_FILE_PREFIX = "incident-";
inline constexpr std::string_view K_INCIDENT_FILE_SUFFIX = ".txt";

// The beginnings of the lines of a report that its summary is read from.
inline constexpr std::string_view K_INCIDENT_PID_LINE = "pid: ";
inline constexpr std::string_view K_INCIDENT_TIME_LINE = "ts: ";
inline constexpr std::string_view K_INCIDENT_TRIGGER_LINE = "triggered by: [";

/// What one report is about, without its backtrace and trace.
struct IncidentRecord {
    long pid = 0;
    std::int64_t ts = 0; ///< seconds since the Unix epoch
    std::string level;   ///< the name of the level, "ERROR"
    std::string message; ///< what was logged

    bool operator==(IncidentRecord const&) const = default;
};

/// The paths of all reports in a directory, oldest first.
std::vector<std::string> list_incident_reports(std::string const& incident_dir);

/// The summary of one report. Its lines are found by their beginnings, wherever they stand; what a
/// report does not tell keeps its default. Nothing for what is no file or cannot be opened.
std::optional<IncidentRecord> parse_incident_report_file(std::string const& path);

/// The newest `max_records` reports of a directory, oldest first; 0 means all. A directory that
/// cannot be read has none.
std::vector<IncidentRecord> read_incident_history(std::string const& incident_dir,
                                                  std::size_t max_records);

} // namespace tessaron
