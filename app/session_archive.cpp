#include "app/session_archive.hpp"

#include "app/incident_history.hpp"
#include "app/session_crash.hpp"
#include "app/session_log_range.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/line_text.hpp"
#include "logger/LineReader.hpp"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <utility>

namespace tessaron {
namespace {

using fs_tools::join_path;

/// Records among which the last session is looked for.
constexpr std::size_t K_LATEST_RECORDS = 200;

std::int64_t to_seconds(std::chrono::system_clock::time_point time) {
    return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

/// A file of the archive that cannot be written is missing from it; there is nobody to tell.
void put_file(std::string const& path, std::string_view text) {
    std::ignore = write_file(path, text, O_TRUNC);
}

void append_line(std::string& text, std::string_view label, std::string_view value) {
    text.append(label).append(one_line(value)).push_back('\n');
}

void append_line_if_any(std::string& text, std::string_view label, std::string const& value) {
    if (!value.empty()) {
        append_line(text, label, value);
    }
}

void append_stop(std::string& text, std::optional<SessionRecord> const& stop) {
    if (!stop) {
        text += "stop: (none recorded - crash/SIGKILL with no stop line, or still running)\n";
        return;
    }
    append_line(text, "stop_ts: ", std::to_string(to_seconds(stop->ts)));
    append_line(text, "duration_s: ", std::to_string(stop->duration_s.count()));
    append_line(text, "reason: ", stop->reason);
    append_line_if_any(text, "stop_runtime: ", stop->runtime);
}

/// The milliseconds in the name of an incident report.
std::optional<std::int64_t> incident_time(std::string_view name) {
    if (!name.starts_with(K_INCIDENT_FILE_PREFIX) || !name.ends_with(K_INCIDENT_FILE_SUFFIX) ||
        name.size() <= K_INCIDENT_FILE_PREFIX.size() + K_INCIDENT_FILE_SUFFIX.size()) {
        return std::nullopt;
    }
    name.remove_prefix(K_INCIDENT_FILE_PREFIX.size());
    name.remove_suffix(K_INCIDENT_FILE_SUFFIX.size());
    return parse_number<std::int64_t>(name);
}

/// A session's folder. Ordered by the session's start: as texts, "99_1" would come behind "100_1".
struct ArchiveName {
    std::int64_t ts = 0;
    long pid = 0;
    auto operator<=>(ArchiveName const&) const = default;

    std::string text() const { return std::to_string(ts) + "_" + std::to_string(pid); }

    /// Nothing for a name that `text` would not give.
    static std::optional<ArchiveName> parse(std::string_view text) {
        auto const separator = text.find('_');
        if (separator == text.npos) {
            return std::nullopt;
        }
        auto const ts = parse_number<std::int64_t>(text.substr(0, separator));
        auto const pid = parse_number<long>(text.substr(separator + 1));
        if (!ts || !pid || ArchiveName{*ts, *pid}.text() != text) {
            return std::nullopt;
        }
        return ArchiveName{*ts, *pid};
    }
};

} // namespace

SessionArchive::SessionArchive(std::string app_directory, std::string incident_dir, Logger& logger)
    : app_directory_(std::move(app_directory)), crash_log_(join_path(app_directory_, "crash.log")),
      incident_dir_(std::move(incident_dir)), root_(join_path(app_directory_, "sessions")),
      logger_(logger) {
}

void SessionArchive::archive_session(SessionRecord const& start,
                                     std::optional<SessionRecord> const& stop) {
    std::string const directory = directory_of(start);
    for (std::string const& path : {app_directory_, root_, directory}) {
        if (!fs_tools::make_dir_once(path, 0755)) {
            return;
        }
    }
    std::int64_t const from = to_seconds(start.ts);
    std::int64_t const to = to_seconds(stop ? stop->ts : logger_.clock().now());

    auto const changes =
        detail::config_changes_in_window(join_path(app_directory_, "config_history.log"), from, to);
    put_file(join_path(directory, "meta.txt"), detail::format_session_meta(start, stop, changes));
    write_session_archive_log(directory, start, stop);
    if (stop && detail::is_crash_session_reason(stop->reason)) {
        write_crash_text(directory, start, *stop);
    }
    detail::copy_matching_incidents(incident_dir_, directory, from, to);
    detail::prune_session_archives(root_, detail::session_archive_dir_name(start), keep_count_);
}

void SessionArchive::archive_session_if_enabled(SessionRecord const& start,
                                                std::optional<SessionRecord> const& stop) {
    if (keep_count_ != 0) {
        archive_session(start, stop);
    }
}

void SessionArchive::backfill_and_prune_session_archives() {
    if (keep_count_ == 0) {
        return;
    }
    auto const session = find_last_session(
        read_session_history(join_path(app_directory_, "sessions.log"), K_LATEST_RECORDS));
    if (!session) {
        return;
    }
    if (!session_archive_has_content(session->start)) {
        archive_session(session->start, session->stop);
    }
    detail::prune_session_archives(root_, detail::session_archive_dir_name(session->start),
                                   keep_count_);
}

std::string SessionArchive::directory_of(SessionRecord const& start) const {
    return join_path(root_, detail::session_archive_dir_name(start));
}

bool SessionArchive::session_archive_has_content(SessionRecord const& start) const {
    return fs_tools::is_reg(join_path(directory_of(start), "session.log"));
}

void SessionArchive::write_session_archive_log(std::string const& directory,
                                               SessionRecord const& start,
                                               std::optional<SessionRecord> const& stop) {
    std::string text;
    if (auto const range = resolve_session_log_range(logger_, crash_log_, start, stop)) {
        SessionLogText const log = read_session_log(logger_, *range);
        if (!log.missing.empty()) {
            text.append("partial log - ").append(log.missing).push_back('\n');
        }
        for (std::string const& line : log.lines) {
            text.append(line).push_back('\n');
        }
    } else {
        // The file must be there: it tells that the session has been archived.
        text = "no log range recorded for this session\n";
    }
    put_file(join_path(directory, "session.log"), text);
}

void SessionArchive::write_crash_text(std::string const& directory, SessionRecord const& start,
                                      SessionRecord const& stop) const {
    auto const record = detail::find_matching_crash_record(crash_log_, start, stop);
    if (!record) {
        return;
    }
    auto const trace = crash_trace_for_record(crash_log_, *record);
    put_file(join_path(directory, "crash.txt"),
             detail::format_crash_txt(*record, trace.value_or(std::vector<std::string>())));
}

namespace detail {

std::string session_archive_dir_name(SessionRecord const& start) {
    return ArchiveName{to_seconds(start.ts), start.pid}.text();
}

std::string format_session_meta(SessionRecord const& start,
                                std::optional<SessionRecord> const& stop,
                                std::vector<config::ConfigChange> const& changes) {
    std::string text;
    append_line(text, "pid: ", std::to_string(start.pid));
    append_line(text, "exe: ", start.exe);
    append_line(text, "user: ", start.user);
    append_line(text, "cwd: ", start.cwd);
    append_line(text, "args: ", join(start.args, '|'));
    append_line(text, "start_ts: ", std::to_string(to_seconds(start.ts)));
    append_line_if_any(text, "start_runtime: ", start.runtime);
    append_stop(text, stop);
    if (!changes.empty()) {
        text += "config changes during this session:\n";
    }
    for (config::ConfigChange const& change : changes) {
        append_line(text, "  ts=",
                    std::to_string(change.time) + " field=" + change.field +
                        " old=" + change.old_value + " new=" + change.new_value);
    }
    return text;
}

std::vector<config::ConfigChange> config_changes_in_window(std::string const& path,
                                                           std::int64_t from, std::int64_t to) {
    std::vector<config::ConfigChange> changes;
    UniqueFd const file = open_file(path, O_RDONLY);
    LineReader reader(file.get());
    while (auto const line = reader.next()) {
        auto change = config::parse_config_change_line(std::string(*line));
        if (change && change->time >= from && change->time <= to) {
            changes.push_back(std::move(*change));
        }
    }
    return changes;
}

std::string format_crash_txt(CrashRecord const& record, std::vector<std::string> const& trace) {
    std::string text;
    append_line(text, "version: ",
                record.version + " build_ts=" + record.build_ts + " commit=" + record.commit +
                    " build_type=" + record.build_type);
    text += "backtrace:\n";
    for (std::string const& frame : record.backtrace) {
        append_line(text, "  ", frame);
    }
    for (std::string const& entry : trace) {
        append_line(text, "", entry);
    }
    return text;
}

void copy_matching_incidents(std::string const& incident_dir, std::string const& destination,
                             std::int64_t from, std::int64_t to) {
    for (std::string const& name :
         fs_tools::list_dir_fs(incident_dir, std::string(K_INCIDENT_FILE_PREFIX))) {
        std::string const path = join_path(incident_dir, name);
        auto const time = incident_time(name);
        if (!time || *time / 1000 < from || *time / 1000 > to || !fs_tools::is_reg(path)) {
            continue;
        }
        if (auto const report = read_file(path)) {
            put_file(join_path(destination, name), *report);
        }
    }
}

void prune_session_archives(std::string const& root, std::string const& name, std::uint64_t keep) {
    std::vector<ArchiveName> archives;
    for (std::string const& folder : fs_tools::list_dirs(root)) {
        if (auto const archive = ArchiveName::parse(folder)) {
            archives.push_back(*archive);
        }
    }
    if (keep == 0 || archives.size() <= keep) {
        return;
    }
    std::sort(archives.begin(), archives.end());
    std::size_t surplus = archives.size() - static_cast<std::size_t>(keep);
    for (ArchiveName const& archive : archives) {
        if (surplus == 0) {
            return;
        }
        if (archive.text() != name) {
            std::error_code ignored; // it is tried again with the next session
            std::filesystem::remove_all(join_path(root, archive.text()), ignored);
            --surplus;
        }
    }
}

} // namespace detail
} // namespace tessaron
