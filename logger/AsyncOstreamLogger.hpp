#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "logger/ILogger.hpp"
#include "logger/LineBatch.hpp"

#include <array>
#include <condition_variable>
#include <string>
#include <string_view>
#include <thread>

namespace tessaron {

/// A logger whose lines are written to an output stream by a thread of its own, so that the caller
/// pays for building a line and queueing it, never for the device behind the stream.
///
/// A line is "[label] [LEVEL] [time stamp] message". The writer takes all that is queued at once,
/// but writes, flushes and reports each line by itself.
///
/// Ownership: the stream must outlive the logger. A derived class that overrides a hook calls
/// `stop_async()` first thing in its destructor, because the writer thread calls the hooks.
/// Thread safety: safe from any thread. Two locks: `mutex_` guards the queue, `destination_mutex_`
/// what the stream points at; they are never held together.
/// Errors: a line that meets a failed stream is lost and reported on the standard error stream; a
/// stream without a buffer ends the writer, and everything logged from then on is dropped.
class AsyncOstreamLogger : public ILogger {
public:
    AsyncOstreamLogger(std::string label, LogLevel level, ITimeProvider const& clock,
                       std::ostream& stream);
    ~AsyncOstreamLogger() override;

    /// The stream belongs to the writer thread; others may use it only while nothing is logged.
    std::ostream& get_stream() override { return stream_; }

    void log_impl(LogLevel level, std::string_view time_stamp,
                  std::string_view message) noexcept override TESSARON_EXCLUDES(mutex_);

    /// Waits until every queued line is written and `on_line_written` has returned for the last
    /// one. Must not be called from `on_line_written`, or anything that it calls: the writer would
    /// wait for itself.
    void flush() TESSARON_EXCLUDES(mutex_);

    /// Writes what is queued and ends the writer thread. What is logged later is dropped.
    void stop_async() TESSARON_EXCLUDES(mutex_);

protected:
    /// Called on the writer thread when `line` has reached the stream, under the same hold of the
    /// lock as the write. So whoever switches the destination under this lock sees each line
    /// either written and accounted for, or neither. Must not log, block or call out.
    virtual void on_line_streamed_locked(std::string const& line)
        TESSARON_REQUIRES(destination_mutex_);

    /// Called on the writer thread, under the same lock, when the lines taken at once are written,
    /// and before a `flush` that waits for them returns.
    virtual void on_batch_streamed_locked() TESSARON_REQUIRES(destination_mutex_);

    /// Called on the writer thread after a line was lost to a stream in a failed state.
    virtual void on_line_lost();

    /// Held by the writer over the writing of one line, and by whoever points the stream at
    /// another buffer. Never taken while `mutex_` is held, nor the other way round.
    mutable Mutex destination_mutex_;

private:
    enum class WriteResult { WRITTEN, STREAM_FAILED, NO_BUFFER };

    void log_loop() TESSARON_EXCLUDES(mutex_);
    /// Waits for lines and takes them all; false when the logger stops and none are left.
    bool take_batch(LineBatch& batch) TESSARON_EXCLUDES(mutex_);
    /// Writes and reports one line; false when the writer cannot go on.
    bool process(LogLevel level, std::string_view line_with_newline)
        TESSARON_EXCLUDES(mutex_, destination_mutex_);
    WriteResult write(std::string_view line_with_newline)
        TESSARON_EXCLUDES(mutex_, destination_mutex_);
    void finish_batch() TESSARON_EXCLUDES(destination_mutex_);
    void end_writer() TESSARON_EXCLUDES(mutex_);

    /// "[label] [LEVEL] [" for each level, and for all that are none.
    std::string const& prefix_of(LogLevel level) const;

    std::array<std::string, 5> const prefixes_;
    std::ostream& stream_;
    std::string line_; ///< the writer thread's: the line in hand, without its newline

    Mutex mutex_;
    std::condition_variable queued_;
    std::condition_variable drained_;
    LineBatch queue_ TESSARON_GUARDED_BY(mutex_);
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    /// True while the writer holds lines that are not wholly dealt with.
    bool writing_ TESSARON_GUARDED_BY(mutex_) = false;
    /// True while the writer waits and nobody has woken it yet: only then does a wake-up, which is
    /// a system call, have to be paid for.
    bool writer_asleep_ TESSARON_GUARDED_BY(mutex_) = false;
    bool writer_ended_ TESSARON_GUARDED_BY(mutex_) = false;

    std::thread writer_;
};

} // namespace tessaron
