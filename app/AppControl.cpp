#include "app/AppControl.hpp"

#include "app/backtrace_signal_safe.hpp"
#include "app/utilities/fs_tools.hpp"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace tessaron {

namespace {

constexpr unsigned K_DIRECTORY_MODE = 0755;
constexpr unsigned K_LOG_MODE = 0644;

std::int64_t seconds_now() {
    return ::time(nullptr);
}

UniqueFd open_for_crash(std::string const& path) {
    return open_file(path, O_WRONLY | O_APPEND | O_CREAT, K_LOG_MODE);
}

std::string working_directory() {
    std::error_code error;
    return std::filesystem::current_path(error).string();
}

} // namespace

AppControl::AppControl(AppContext& context, std::function<void()> stop_callback)
    : context_(context), stop_callback_(std::move(stop_callback)),
      directory_(fs_tools::join_path(context.app_dir(), context.app_name())),
      archive_(directory_, context.incident_dir(), context.logger()),
      session_start_(seconds_now()) {
    detail::enforce_crash_log_max_size(crash_log_path());
    open_crash_log_signal_safe();
    open_session_log_signal_safe();
    detail::prepare_backtraces();
}

void AppControl::request_reboot(std::string const& reason) {
    context_.log().log(LogLevel::INFO, "AppControl: reboot requested (", reason, ")");
    {
        MutexLock lock(reboot_mutex_);
        reboot_reason_ = reason;
    }
    reboot_requested_ = true;
    stop_callback_();
}

void AppControl::request_crash_test(std::string const& reason) {
    context_.log().log(LogLevel::WARNING, "AppControl: crash test requested (", reason,
                       ") - crashing via SIGABRT in ", CrashTest::K_DELAY.count(), "ms");
    crash_test_.arm();
}

void AppControl::note_main_thread() noexcept {
    crash_test_.set_target(::pthread_self());
}

std::string AppControl::reboot_reason() const {
    MutexLock lock(reboot_mutex_);
    return reboot_reason_;
}

void AppControl::record_session_start(int argc, char const* const* argv,
                                      std::string const& runtime) {
    archive_.backfill_and_prune_session_archives();
    session_start_ = seconds_now();
    make_directory();
    LogStats const stats = context_.logger().stats();
    SessionRecord record;
    record.is_start = true;
    record.ts = std::chrono::system_clock::from_time_t(session_start_);
    record.pid = ::getpid();
    record.exe = context_.executable_path();
    record.user = context_.user_name();
    record.cwd = working_directory();
    for (int index = 1; index < argc; ++index) {
        record.args.emplace_back(argv[index]);
    }
    record.log_line = stats.line_count;
    record.generation = stats.generation;
    record.runtime = runtime;
    append(format_session_start(record));
}

void AppControl::record_session_end(std::string const& reason, std::string const& runtime) {
    std::int64_t const now = seconds_now();
    SessionRecord record;
    record.ts = std::chrono::system_clock::from_time_t(now);
    record.pid = ::getpid();
    record.duration_s = std::chrono::seconds(seconds_since_session_start(now));
    record.reason = reason;
    record.runtime = runtime;
    // Logged before the position is taken, so that the session's own part of the log includes it.
    context_.logger().log(LogLevel::INFO, "session stop: pid=", record.pid,
                          " duration_s=", record.duration_s.count(), " reason=", reason);
    LogStats const stats = context_.logger().stats();
    record.log_line = stats.line_count;
    record.generation = stats.generation;
    make_directory();
    append(format_session_stop(record));
    if (archive_.keep_count() != 0) {
        archive_own_session(record);
    }
}

void AppControl::archive_own_session(SessionRecord const& stop) {
    std::vector<SessionRecord> const records = session_history(0);
    auto const start =
        std::find_if(records.rbegin(), records.rend(), [&stop](SessionRecord const& record) {
            return record.is_start && record.pid == stop.pid;
        });
    if (start != records.rend()) {
        archive_.archive_session_if_enabled(*start, stop);
    }
}

std::string AppControl::session_history_path() const {
    return fs_tools::join_path(directory_, "sessions.log");
}

std::string AppControl::crash_log_path() const {
    return fs_tools::join_path(directory_, "crash.log");
}

std::vector<SessionRecord> AppControl::session_history(std::size_t max) const {
    return read_session_history(session_history_path(), max);
}

std::vector<CrashRecord> AppControl::crash_history(std::size_t max_records,
                                                   std::size_t max_backtrace,
                                                   std::size_t skip_from_end) const {
    std::size_t const wanted = max_records + skip_from_end;
    bool const all = max_records == 0 || wanted < skip_from_end;
    auto records = read_crash_history(crash_log_path(), all ? 0 : wanted, max_backtrace);
    records.resize(records.size() - std::min(records.size(), skip_from_end));
    return records;
}

std::vector<IncidentRecord> AppControl::incident_history(std::size_t max_records) const {
    return read_incident_history(context_.incident_dir(), max_records);
}

void AppControl::make_directory() const {
    // Where it cannot be made, there is no history.
    std::ignore = fs_tools::make_dir_once(directory_, K_DIRECTORY_MODE);
}

void AppControl::append(std::string const& line) const {
    std::ignore = append_session_line(session_history_path(), line);
}

void AppControl::open_crash_log_signal_safe() {
    make_directory();
    crash_log_ = open_for_crash(crash_log_path());
}

void AppControl::open_session_log_signal_safe() {
    make_directory();
    session_log_ = open_for_crash(session_history_path());
}

std::int64_t AppControl::seconds_since_session_start(std::int64_t now) const noexcept {
    return std::max<std::int64_t>(now - session_start_, 0);
}

} // namespace tessaron
