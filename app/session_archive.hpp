#pragma once

#include "app/config_history.hpp"
#include "app/crash_history.hpp"
#include "app/session_history.hpp"
#include "logger/Logger.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tessaron {

// sessions/<start's timestamp>_<pid>/ below the application's directory:
//
//     meta.txt          the session's start and stop, and the configuration changed during it
//     session.log       its part of the diagnostic log
//     crash.txt         its crash record with the trace, if it crashed
//     incident-*.txt    the incident reports of its time

/// Keeps one folder for each of the last sessions, so that what belongs to a session is at hand
/// when the histories and logs that it came from have gone on.
///
/// Ownership: the logger must outlive the object.
/// Thread safety: one thread at a time, the caller's duty. Waits for the log's writer.
/// Errors: none reach the caller; what cannot be written is missing.
class SessionArchive {
public:
    /// `app_directory` holds sessions.log, crash.log and config_history.log.
    SessionArchive(std::string app_directory, std::string incident_dir, Logger& logger);

    /// Number of sessions that are kept; 0, as at first, turns archiving off.
    void set_keep_count(std::uint64_t count) noexcept { keep_count_ = count; }
    std::uint64_t keep_count() const noexcept { return keep_count_; }

    /// Writes the session's folder and prunes. Without a stop the session runs still or was killed.
    void archive_session(SessionRecord const& start, std::optional<SessionRecord> const& stop);
    void archive_session_if_enabled(SessionRecord const& start,
                                    std::optional<SessionRecord> const& stop);
    /// Writes the folder of the last session in the history if that one has not got it: a process
    /// that died could not write it. Call it before the new session's start line is written.
    void backfill_and_prune_session_archives();

private:
    bool session_archive_has_content(SessionRecord const& start) const;
    void write_session_archive_log(std::string const& directory, SessionRecord const& start,
                                   std::optional<SessionRecord> const& stop);
    void write_crash_text(std::string const& directory, SessionRecord const& start,
                          SessionRecord const& stop) const;
    std::string directory_of(SessionRecord const& start) const;

    std::string const app_directory_;
    std::string const crash_log_;
    std::string const incident_dir_;
    std::string const root_;
    Logger& logger_;
    std::uint64_t keep_count_ = 0;
};

namespace detail {

/// "<seconds>_<pid>" of the session's start.
std::string session_archive_dir_name(SessionRecord const& start);

/// The text of meta.txt.
std::string format_session_meta(SessionRecord const& start,
                                std::optional<SessionRecord> const& stop,
                                std::vector<config::ConfigChange> const& changes);

/// The changes told by the history at `path` from `from` to `to`, both included.
std::vector<config::ConfigChange> config_changes_in_window(std::string const& path,
                                                           std::int64_t from, std::int64_t to);

/// The text of crash.txt.
std::string format_crash_txt(CrashRecord const& record, std::vector<std::string> const& trace);

/// Copies the reports "incident-<milliseconds>.txt" whose time lies from `from` to `to` (seconds,
/// both included).
void copy_matching_incidents(std::string const& incident_dir, std::string const& destination,
                             std::int64_t from, std::int64_t to);

/// Removes the oldest session folders below `root` until `keep` are left. The folder `name` stays,
/// however old it is, as does whatever is not named like a session's folder. A `keep` of 0 removes
/// nothing.
void prune_session_archives(std::string const& root, std::string const& name, std::uint64_t keep);

} // namespace detail
} // namespace tessaron
