#pragma once

#include "app/AppContext.hpp"
#include "app/CrashTest.hpp"
#include "app/app_control_envelopes.hpp"
#include "app/crash_history.hpp"
#include "app/session_archive.hpp"
#include "app/session_history.hpp"
#include "app/session_log_range.hpp"
#include "app/utilities/file_io.hpp"
#include "bus/LocalClient.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron {

/// Keeps an application's session and crash history and its request to be started anew, and serves
/// both on the bus: the topics stand in AppControl_Service.cpp.
///
/// All files lie in the application's own directory, `app_dir`/`app_name`: sessions.log, crash.log
/// and, for an application that wants them, the archives below sessions/. What a crash needs to be
/// written is prepared at construction: both files stand open, the build text is put together.
///
/// Ownership: the context must outlive the object; the stop callback is called on the thread that
/// requests the reboot and must not block. From `join_bus` to `leave_bus` that may be a thread of
/// the bus.
/// Thread safety: `request_reboot`, `request_crash_test` and the readers from any thread;
/// `join_bus` and `leave_bus` on the main thread; `record_...` on the main thread or the one that
/// terminates;
/// `..._signal_safe` are async-signal-safe.
/// Errors: nothing here stops the application; a file that cannot be opened means no history.
class AppControl {
public:
    /// A handler of a request; what it throws is the text of an error reply.
    using ControlHandler = std::function<Bytes(Bytes const& request)>;

    static constexpr std::size_t K_SESSION_HISTORY_MAX = 200;
    static constexpr std::size_t K_CRASH_HISTORY_MAX = 100;
    static constexpr std::size_t K_INCIDENT_HISTORY_MAX = 100;
    static constexpr std::size_t K_STATUS_SESSIONS = 10;

    AppControl(AppContext& context, std::function<void()> stop_callback);
    AppControl(AppControl const&) = delete;
    AppControl& operator=(AppControl const&) = delete;

    // The reboot that the shell carries out once the application's main loop has returned.

    void request_reboot(std::string const& reason) TESSARON_EXCLUDES(reboot_mutex_);
    bool reboot_requested() const noexcept { return reboot_requested_; }
    std::string reboot_reason() const TESSARON_EXCLUDES(reboot_mutex_);

    /// Crashes the process shortly after, as a test of all that follows; the history calls it one.
    void request_crash_test(std::string const& reason);
    /// Called by the thread that a crash test is to crash.
    void note_main_thread() noexcept;

    // AppControl_Service.cpp: on the bus.

    /// Answers requests from now on, on a thread of the bus.
    void join_bus();
    /// Returns when no handler is running and none will; what was answered has been sent. Without a
    /// `join_bus`, and a second time, it does nothing.
    void leave_bus();
    /// One more topic on the same node; after `join_bus`.
    void serve_control_topic(std::string const& topic, ControlHandler handler,
                             std::string const& description);
    /// Version and last sessions, as text.
    std::string build_info_report() const;
    SessionLogReply build_session_log_reply(SessionLogRequest const& request);

    // Writing the histories.

    void record_session_start(int argc, char const* const* argv, std::string const& runtime);
    void record_session_end(std::string const& reason, std::string const& runtime);
    /// Archives are kept from the next start or end of a session on; 0, the default, turns them
    /// off.
    void set_session_archive_keep_count(std::uint64_t count) noexcept {
        archive_.set_keep_count(count);
    }

    // AppControl_signal_safe.cpp: on the crash path.

    /// The header and the backtrace of the calling thread. `info` is null for an uncaught
    /// exception; `signum` is 0 then.
    void write_crash_record_signal_safe(int signum, siginfo_t const* info, std::int64_t seconds,
                                        std::int64_t milliseconds) noexcept;
    /// "detail: " and the text, as one line.
    void write_crash_detail_signal_safe(std::string_view text) noexcept;
    /// The last messages that were logged or went over the bus.
    void write_crash_trace_signal_safe() noexcept;
    /// `runtime` may be null if `runtime_length` is 0.
    void record_session_end_signal_safe(char const* signal_name, char const* runtime,
                                        std::size_t runtime_length) noexcept;

    // Reading them back.

    std::string session_history_path() const;
    std::string crash_log_path() const;
    std::vector<SessionRecord> session_history(std::size_t max) const;
    /// `skip_from_end` of the newest are left out, whatever `max_records` is.
    std::vector<CrashRecord> crash_history(std::size_t max_records, std::size_t max_backtrace,
                                           std::size_t skip_from_end = 0) const;
    std::vector<IncidentRecord> incident_history(std::size_t max_records) const;

private:
    void make_directory() const;
    void append(std::string const& line) const;
    void archive_own_session(SessionRecord const& stop);
    void open_crash_log_signal_safe();
    void open_session_log_signal_safe();
    std::int64_t seconds_since_session_start(std::int64_t now) const noexcept;
    template <typename Request, typename Reply>
    void serve(std::string const& topic, Reply (AppControl::*answer)(Request const&),
               std::string const& description);
    AppControlStatusReply answer_reboot(RebootRequest const& request);
    AppControlStatusReply answer_crash_test(CrashTestRequest const& request);
    SessionHistoryReply answer_session_history(SessionHistoryRequest const& request);
    CrashHistoryReply answer_crash_history(CrashHistoryRequest const& request);
    CrashIncidentReply answer_crash_incident(CrashIncidentRequest const& request);
    IncidentHistoryReply answer_incident_history(IncidentHistoryRequest const& request);
    std::optional<Session> find_session(SessionLogRequest const& request) const;

    AppContext& context_;
    std::function<void()> const stop_callback_;
    std::string const directory_;
    SessionArchive archive_;
    std::atomic<std::int64_t> session_start_; ///< seconds since the Unix epoch
    UniqueFd crash_log_;
    UniqueFd session_log_;
    std::atomic<bool> reboot_requested_{false};
    mutable Mutex reboot_mutex_;
    std::string reboot_reason_ TESSARON_GUARDED_BY(reboot_mutex_);
    CrashTest crash_test_;
    std::shared_ptr<bus::LocalClient> control_client_; ///< Last: its handlers use all of the above.
};

} // namespace tessaron
