#include "logger/AsyncOstreamLogger.hpp"

#include "libraries/threads/start_thread.hpp"

#include <algorithm>
#include <exception>
#include <iostream>
#include <utility>

namespace tessaron {
namespace {

std::string make_prefix(std::string const& label, int level) {
    std::string prefix = "[" + label + "] [";
    return prefix.append(to_string(static_cast<LogLevel>(level))).append("] [");
}

/// Tells what was thrown at the writer thread: by a sink of somebody else's, or for want of memory.
/// The thread goes on.
void report_caught(std::string const& label) {
    try {
        throw;
    } catch (std::exception const& failure) {
        std::cerr << label << ": a log sink failed: " << failure.what() << std::endl;
    } catch (...) {
        std::cerr << label << ": a log sink failed" << std::endl;
    }
}

} // namespace

AsyncOstreamLogger::AsyncOstreamLogger(std::string label, LogLevel level,
                                       ITimeProvider const& clock, std::ostream& stream)
    : ILogger(std::move(label), level, clock), prefixes_{make_prefix(get_label(), 0),
                                                         make_prefix(get_label(), 1),
                                                         make_prefix(get_label(), 2),
                                                         make_prefix(get_label(), 3),
                                                         make_prefix(get_label(), 4)},
      stream_(stream), writer_(start_thread("log-writer", [this] { log_loop(); })) {
}

AsyncOstreamLogger::~AsyncOstreamLogger() {
    stop_async();
}

void AsyncOstreamLogger::log_impl(LogLevel level, std::string_view time_stamp,
                                  std::string_view message) noexcept {
    bool wake = false;
    {
        MutexLock lock(mutex_);
        if (writer_ended_) {
            return;
        }
        queue_.add(level, {prefix_of(level), time_stamp, "] ", message});
        wake = std::exchange(writer_asleep_, false);
    }
    if (wake) {
        queued_.notify_one();
    }
}

std::string const& AsyncOstreamLogger::prefix_of(LogLevel level) const {
    return prefixes_[std::min<std::size_t>(static_cast<std::size_t>(level), prefixes_.size() - 1)];
}

void AsyncOstreamLogger::flush() {
    MutexLock lock(mutex_);
    drained_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
        return writer_ended_ || (queue_.empty() && !writing_);
    });
}

void AsyncOstreamLogger::stop_async() {
    {
        MutexLock lock(mutex_);
        running_ = false;
    }
    queued_.notify_one();
    if (writer_.joinable()) {
        writer_.join();
    }
}

void AsyncOstreamLogger::on_line_streamed_locked(std::string const&) {
}

void AsyncOstreamLogger::on_line_lost() {
}

void AsyncOstreamLogger::on_batch_streamed_locked() {
}

void AsyncOstreamLogger::log_loop() {
    LineBatch batch;
    while (take_batch(batch)) {
        for (std::size_t i = 0; i < batch.size(); ++i) {
            if (!process(batch.level(i), batch.text(i))) {
                end_writer();
                return;
            }
        }
        finish_batch();
        batch.clear();
    }
}

void AsyncOstreamLogger::finish_batch() {
    try {
        MutexLock lock(destination_mutex_);
        on_batch_streamed_locked();
    } catch (...) {
        report_caught(get_label());
    }
}

bool AsyncOstreamLogger::take_batch(LineBatch& batch) {
    MutexLock lock(mutex_);
    writing_ = false;
    if (queue_.empty()) {
        drained_.notify_all();
    }
    while (running_ && queue_.empty()) {
        writer_asleep_ = true;
        queued_.wait(lock.native());
    }
    writer_asleep_ = false;
    if (queue_.empty()) {
        writer_ended_ = true;
        return false;
    }
    writing_ = true;
    batch.swap(queue_);
    return true;
}

bool AsyncOstreamLogger::process(LogLevel level, std::string_view line_with_newline) {
    WriteResult result = WriteResult::STREAM_FAILED;
    try {
        result = write(line_with_newline);
        if (result == WriteResult::WRITTEN) {
            on_line_written(level, line_);
        } else if (result == WriteResult::STREAM_FAILED) {
            std::cerr << "Логгер " << get_label() << " в ошибочном состоянии." << std::endl;
            on_line_lost();
        } else {
            std::cerr << "Логгер " << get_label() << " больше недоступен (null rdbuf)."
                      << std::endl;
        }
    } catch (...) {
        report_caught(get_label());
    }
    return result != WriteResult::NO_BUFFER;
}

AsyncOstreamLogger::WriteResult AsyncOstreamLogger::write(std::string_view line_with_newline) {
    MutexLock lock(destination_mutex_);
    if (stream_.rdbuf() == nullptr) {
        return WriteResult::NO_BUFFER;
    }
    if (stream_.fail()) {
        return WriteResult::STREAM_FAILED;
    }
    // One write for line and newline, so that no other writer of the file can get in between.
    stream_.write(line_with_newline.data(), static_cast<std::streamsize>(line_with_newline.size()));
    stream_.flush();
    line_.assign(line_with_newline, 0, line_with_newline.size() - 1);
    on_line_streamed_locked(line_);
    return WriteResult::WRITTEN;
}

void AsyncOstreamLogger::end_writer() {
    MutexLock lock(mutex_);
    writing_ = false;
    writer_ended_ = true;
    drained_.notify_all();
}

} // namespace tessaron
