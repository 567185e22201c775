#pragma once

#include "bus/Hub.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "logger/ITimeProvider.hpp"
#include "logger/Logger.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tessaron {

// A report, "incident-<milliseconds>.txt":
//
//     === incident report ===
//     app: <name> <version>
//     pid: <n>
//     ts: <seconds>
//     triggered by: [<level>] <message>
//
//     Backtrace:
//     <a line per frame, 32 at most, or "(no backtrace captured)">
//
//     === recent activity (logs + bus traffic, merged by time, regardless of active log level) ===
//     <a line per entry, as trace_merge.hpp writes it>
//
//     === runtime state ===        only if the application has something to say
//     <its text>

/// Takes a snapshot of the process when something logs an error: where it was logged, and what was
/// logged and went over the bus before, whatever the log's level.
///
/// A report costs its caller two copies of rings on its stack, some 200 KB, and one file. The time
/// of a report is noted before it is written: one that fails uses up its interval too, and an error
/// that writing it causes leads to no second one.
///
/// Ownership: logger, hub and clocks outlive the reporter.
/// Thread safety: safe from any thread; two internal locks, never held while a report is written or
/// the provider runs. So it may be called with any of the caller's locks held, as long as the
/// provider takes none of them.
/// Errors: none; a report that cannot be written is lost without a word, for the word would be
/// logged.
class IncidentReporter {
public:
    using SteadyTime = std::chrono::steady_clock::time_point;
    using SteadyNow = std::function<SteadyTime()>;
    using ContentProvider = std::function<std::string()>;

    static constexpr std::chrono::seconds K_MIN_INTERVAL{30};
    static constexpr std::size_t K_KEPT_REPORTS = 20;
    static constexpr int K_MAX_FRAMES = 32;

    /// Who reports, and where to; `directory` is made when there is something to be put there.
    struct Subject {
        std::string app_name;
        std::string version;
        std::string directory;
    };

    IncidentReporter(Subject subject, Logger const& logger, bus::Hub const& hub,
                     ITimeProvider const& clock, SteadyNow now = &std::chrono::steady_clock::now);

    /// Writes a report unless one was tried less than `K_MIN_INTERVAL` ago.
    void maybe_report(LogLevel level, std::string_view message) noexcept
        TESSARON_EXCLUDES(interval_mutex_);
    /// Writes one in any case, and lets the oldest go.
    void write_report(LogLevel level, std::string_view message) noexcept
        TESSARON_EXCLUDES(provider_mutex_);
    /// Leaves the newest `K_KEPT_REPORTS`.
    void prune() const;

    /// Asked for the runtime state with each report, on the thread that logged; it must not log at
    /// ERROR, wait for that thread or take a lock that is held while something is logged. An empty
    /// text leaves that part out, an empty callable too.
    void set_extra_content_provider(ContentProvider provider) TESSARON_EXCLUDES(provider_mutex_);

private:
    bool is_due() TESSARON_EXCLUDES(interval_mutex_);
    std::string report(LogLevel level, std::string_view message,
                       std::chrono::system_clock::duration time) TESSARON_EXCLUDES(provider_mutex_);
    void append_runtime_state(std::string& text) TESSARON_EXCLUDES(provider_mutex_);

    Subject const subject_;
    Logger const& logger_;
    bus::Hub const& hub_;
    ITimeProvider const& clock_;
    SteadyNow const now_;
    Mutex interval_mutex_;
    std::optional<SteadyTime> last_report_ TESSARON_GUARDED_BY(interval_mutex_);
    Mutex provider_mutex_;
    std::shared_ptr<ContentProvider const> provider_ TESSARON_GUARDED_BY(provider_mutex_);
};

/// The entries of both rings as they stand in a report, a line each.
void append_merged_trace(std::string& text, Logger::LogTraceSnapshot const& log,
                         bus::Hub::BusTraceSnapshot const& bus);

} // namespace tessaron
