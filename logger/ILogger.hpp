#pragma once

#include "logger/ITimeProvider.hpp"
#include "logger/LogLevel.hpp"
#include "logger/stream_text.hpp"

#include <atomic>
#include <ostream>
#include <string>
#include <string_view>

namespace tessaron {

/// Something that takes log lines: the process's `Logger`, or a named source in front of it.
///
/// Ownership: the time provider must outlive the logger.
/// Thread safety: safe from any thread; implementations keep it so.
/// Errors: none reach the caller. Logging promises not to throw; a failure inside it (no memory)
/// ends the process through the terminate handler.
class ILogger {
public:
    ILogger(std::string label, LogLevel level, ITimeProvider const& clock);
    ILogger(ILogger const&) = delete;
    ILogger& operator=(ILogger const&) = delete;
    virtual ~ILogger() = default;

    /// The stream that lines end up in.
    virtual std::ostream& get_stream() = 0;

    /// Takes one message that passed the minimum level.
    virtual void log_impl(LogLevel level, std::string_view time_stamp,
                          std::string_view message) noexcept = 0;

    /// Called on the logging thread for every message, also for one below the minimum level. `time`
    /// is that of the call: the clock is looked at once, so that it agrees with the time stamp.
    virtual void on_log_call(LogLevel level, std::string_view message,
                             ITimeProvider::TimePoint time) noexcept;

    /// Called after a line (without its newline) was written, on the thread that wrote it.
    virtual void on_line_written(LogLevel level, std::string const& line);

    std::string const& get_label() const noexcept { return label_; }
    LogLevel get_level() const noexcept { return level_.load(std::memory_order_relaxed); }
    /// Takes effect with the next message.
    void set_level(LogLevel level) noexcept { level_.store(level, std::memory_order_relaxed); }
    ITimeProvider const& clock() const noexcept { return clock_; }

    /// Streams the arguments one after the other, without separators, into one message.
    template <typename... Args>
    void log(LogLevel level, Args const&... args) noexcept {
        detail::with_stream_text([&](std::string_view message) { submit(level, message); },
                                 args...);
    }

private:
    void submit(LogLevel level, std::string_view message) noexcept;

    std::string const label_;
    std::atomic<LogLevel> level_;
    ITimeProvider const& clock_;
};

} // namespace tessaron
