#pragma once

#include "logger/AsyncOstreamLogger.hpp"
#include "logger/ConsoleStreamBuffer.hpp"
#include "logger/LineIndex.hpp"
#include "logger/LogTraceRingBuffer.hpp"
#include "logger/ResilientFileBuffer.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tessaron {

/// The file that is written at present; everything but `generation` is empty while on the console.
struct LogStats {
    std::string path;
    std::uint64_t line_count = 0;
    std::uint64_t file_size_bytes = 0;
    std::uint64_t generation = 0;
};

/// The process's log: lines go to the console first and, after a redirect, to a file that is
/// rotated by size and survives the loss of its directory.
///
/// Where the lines go:
///
///     console --redirect_to_file--> intended file <---------------------------+
///        |                             | a write fails or the file is gone     | 30 s later, when
///        it |                             v                                       | can be opened
///        |                          degraded: bytes go to the standard output  | again: the lines
///        |                             | at the next check                     | are moved over
///        +--file not openable----> fallback file "/tmp/<label>/<file name>" --+
///
/// The checks are driven by written lines, at most one every `K_RECOVERY_CHECK_INTERVAL`; an idle
/// logger stays where it is. A degraded buffer tries the file again with every line.
///
/// The lines logged before the first redirect, up to `K_PENDING_LINES_LIMIT`, are written to the
/// file by it. The last `K_TRACE_SIZE` messages of any level are kept in memory.
///
/// Ownership: the time provider and the self-log sink must outlive the logger, or be reset before
/// they go. Sinks are copied in.
/// Thread safety: safe from any thread, sinks included, but what runs on the writer thread (the
/// line sink) must not call `flush`, `stats`, `read_lines` or a redirect: these wait for the
/// writer. No lock is held while a sink runs.
/// Errors: no failure of the destination reaches the caller; the logger logs it itself.
class Logger final : public AsyncOstreamLogger {
public:
    static constexpr std::chrono::seconds K_RECOVERY_CHECK_INTERVAL{30};
    static constexpr std::size_t K_PENDING_LINES_LIMIT = 200;
    static constexpr std::size_t K_TRACE_SIZE = 500;
    static constexpr std::uint64_t K_DEFAULT_MAX_FILE_SIZE = 1'000'000;
    static constexpr std::uint64_t K_DEFAULT_KEPT_GENERATIONS = 5;
    static constexpr char const* K_FILE_NAME = "app.log";
    static constexpr char const* K_FALLBACK_ROOT = "/tmp/";

    /// Called on the writer thread, for every line above TRACE. Numbers count from 1 within one
    /// file. May log; must not wait for the logger.
    using LineSink = std::function<void(std::uint64_t line_number, std::string const& line,
                                        std::uint64_t generation)>;
    /// Called on the thread that logged, for every ERROR, before its line is queued.
    using IncidentTriggerSink = std::function<void(LogLevel level, std::string const& message)>;
    using LogTraceSnapshot = LogTraceSnapshotOf<K_TRACE_SIZE>;

    Logger(std::string label, LogLevel level, ITimeProvider const& clock);
    ~Logger() override;

    void on_log_call(LogLevel level, std::string_view message,
                     ITimeProvider::TimePoint time) noexcept override;
    void on_line_written(LogLevel level, std::string const& line) override;

    // Logger_Destination.cpp

    /// `redirect_to_file` of "app.log" in the label's own subdirectory of `directory`.
    bool redirect_to_directory(std::string const& directory);
    /// Writes to `path` from now on, or to the fallback file until `path` can be opened. Makes the
    /// directory if only its last level is missing. False if neither file could be opened; then
    /// nothing has changed.
    bool redirect_to_file(std::string const& path) TESSARON_EXCLUDES(destination_mutex_);

    /// 0 means no limit.
    void set_max_file_size(std::uint64_t bytes) noexcept { max_file_size_ = bytes; }
    /// Number of backups that a rotation leaves; 0 means all.
    void set_kept_generations(std::uint64_t count) noexcept { kept_generations_ = count; }

    // Logger.cpp

    /// Waits, like `flush`, so that what was logged before the call is counted.
    LogStats stats() TESSARON_EXCLUDES(destination_mutex_);
    /// Lines of the current file, or of a backup. Numbers count from 1 within one file, both bounds
    /// are included; a `from_line` of 0 means 1, a `to_line` of 0 the end. Waits like `flush`.
    LogRange read_lines(std::uint64_t generation, std::uint64_t from_line, std::uint64_t to_line)
        TESSARON_EXCLUDES(destination_mutex_);

    /// Shows each line that goes to a file on the standard output stream too.
    void set_verbose_console_echo(bool echo) noexcept { verbose_console_echo_ = echo; }
    /// An empty callable removes the sink. The former sink may be running still; it is not any more
    /// after a `flush`.
    void register_line_sink(LineSink sink) TESSARON_EXCLUDES(sinks_mutex_);
    /// Takes the logger's own messages, which go to the logger itself when it is null.
    void register_self_log_sink(ILogger* sink) noexcept { self_log_sink_ = sink; }
    void set_incident_trigger_sink(IncidentTriggerSink sink) TESSARON_EXCLUDES(sinks_mutex_);

    LogTraceSnapshot log_trace_snapshot() const noexcept { return trace_.snapshot(); }
    /// `K_TRACE_SIZE` entries. Async-signal-safe, as is the write index.
    LogTraceEntry const* log_trace_raw_entries() const noexcept { return trace_.raw_entries(); }
    std::uint64_t log_trace_raw_write_index() const noexcept { return trace_.raw_write_index(); }

private:
    /// What the writer thread found out about the line it wrote last.
    struct WrittenLine {
        std::uint64_t number = 0;
        std::uint64_t generation = 0;
        bool on_console = true;
        bool file_outgrown = false;
    };

    void on_line_streamed_locked(std::string const& line) override
        TESSARON_REQUIRES(destination_mutex_);
    void on_batch_streamed_locked() override TESSARON_REQUIRES(destination_mutex_);
    void on_line_lost() override;

    template <typename... Args>
    void log_self(LogLevel level, Args const&... args) {
        ILogger* const sink = self_log_sink_;
        (sink != nullptr ? *sink : *this).log(level, args...);
    }

    // Logger_Destination.cpp
    std::string tmp_fallback_path(std::string const& path) const;
    bool file_outgrown_locked() const TESSARON_REQUIRES(destination_mutex_);
    /// Points the stream at another file and hands the former one back.
    std::unique_ptr<ResilientFileBuffer>
    switch_file_locked(std::unique_ptr<ResilientFileBuffer> file)
        TESSARON_REQUIRES(destination_mutex_);
    /// Makes sure of the lines written so far, and counts anew if the file is another one now.
    void confirm_file_locked() TESSARON_REQUIRES(destination_mutex_);
    void write_pending_locked() TESSARON_REQUIRES(destination_mutex_);
    void rotate_no_flush() TESSARON_EXCLUDES(destination_mutex_);
    void maybe_recover_destination() TESSARON_EXCLUDES(destination_mutex_);
    void try_recover_to_intended_path() TESSARON_EXCLUDES(destination_mutex_);
    void fall_back_to_tmp() TESSARON_EXCLUDES(destination_mutex_);

    LineIndex line_index_;

    ConsoleStreamBuffer console_buffer_;
    std::ostream stream_; ///< the writer thread's, and of who holds the destination lock
    std::unique_ptr<ResilientFileBuffer> file_ TESSARON_GUARDED_BY(destination_mutex_);
    std::string current_path_ TESSARON_GUARDED_BY(destination_mutex_);
    std::string intended_path_ TESSARON_GUARDED_BY(destination_mutex_);
    std::vector<std::string> pending_lines_ TESSARON_GUARDED_BY(destination_mutex_);
    std::atomic<std::uint64_t> line_count_{0};
    std::atomic<std::uint64_t> generation_{0};

    WrittenLine written_;                          ///< the writer thread's
    ITimeProvider::TimePoint next_recovery_check_; ///< the writer thread's

    Mutex sinks_mutex_;
    std::shared_ptr<LineSink const> line_sink_ TESSARON_GUARDED_BY(sinks_mutex_);
    std::shared_ptr<IncidentTriggerSink const>
        incident_trigger_sink_ TESSARON_GUARDED_BY(sinks_mutex_);
    std::atomic<ILogger*> self_log_sink_{nullptr};

    std::atomic<std::uint64_t> max_file_size_{K_DEFAULT_MAX_FILE_SIZE};
    std::atomic<std::uint64_t> kept_generations_{K_DEFAULT_KEPT_GENERATIONS};
    std::atomic<bool> verbose_console_echo_{false};

    LogTraceRingBuffer<K_TRACE_SIZE> trace_;
};

} // namespace tessaron
