#include "logger/AsyncOstreamLogger.hpp"

#include <exception>
#include <iostream>
#include <pthread.h>

namespace tessaron {

AsyncOstreamLogger::AsyncOstreamLogger(std::string label, LogLevel level,
                                       ITimeProvider const& clock, std::ostream& stream)
    : ILogger(std::move(label), level, clock), stream_(stream), writer_([this] { log_loop(); }) {
    pthread_setname_np(writer_.native_handle(), "log-writer");
}

AsyncOstreamLogger::~AsyncOstreamLogger() {
    stop_async();
}

void AsyncOstreamLogger::log_impl(LogLevel level, std::string const& time_stamp,
                                  std::string const& message) noexcept {
    constexpr std::size_t K_BRACKETS_AND_LEVEL = 20;
    std::string line;
    line.reserve(get_label().size() + time_stamp.size() + message.size() + K_BRACKETS_AND_LEVEL);
    line.append("[").append(get_label()).append("] [").append(to_string(level));
    line.append("] [").append(time_stamp).append("] ").append(message);

    bool wake = false;
    {
        MutexLock lock(mutex_);
        if (writer_ended_) {
            return;
        }
        queue_.emplace_back(level, std::move(line));
        wake = std::exchange(writer_asleep_, false);
    }
    if (wake) {
        queued_.notify_one();
    }
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

void AsyncOstreamLogger::log_loop() {
    std::vector<QueuedLine> batch;
    while (take_batch(batch)) {
        for (QueuedLine& queued : batch) {
            if (!process(queued)) {
                end_writer();
                return;
            }
        }
        batch.clear();
    }
}

bool AsyncOstreamLogger::take_batch(std::vector<QueuedLine>& batch) {
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

bool AsyncOstreamLogger::process(QueuedLine& queued) {
    auto& [level, line] = queued;
    WriteResult result = WriteResult::STREAM_FAILED;
    try {
        result = write(line);
        if (result == WriteResult::WRITTEN) {
            on_line_written(level, line);
        } else if (result == WriteResult::STREAM_FAILED) {
            std::cerr << "Логгер " << get_label() << " в ошибочном состоянии." << std::endl;
            on_line_lost();
        } else {
            std::cerr << "Логгер " << get_label() << " больше недоступен (null rdbuf)."
                      << std::endl;
        }
    } catch (std::exception const& failure) {
        // A sink of somebody else's, or no memory: the writer goes on with the next line.
        std::cerr << get_label() << ": a log sink failed: " << failure.what() << std::endl;
    } catch (...) {
        std::cerr << get_label() << ": a log sink failed" << std::endl;
    }
    return result != WriteResult::NO_BUFFER;
}

AsyncOstreamLogger::WriteResult AsyncOstreamLogger::write(std::string& line) {
    MutexLock lock(destination_mutex_);
    if (stream_.rdbuf() == nullptr) {
        return WriteResult::NO_BUFFER;
    }
    if (stream_.fail()) {
        return WriteResult::STREAM_FAILED;
    }
    // One write for both, so that no other writer of the same file can get in between.
    line.push_back('\n');
    stream_.write(line.data(), static_cast<std::streamsize>(line.size()));
    line.pop_back();
    stream_.flush();
    on_line_streamed_locked(line);
    return WriteResult::WRITTEN;
}

void AsyncOstreamLogger::end_writer() {
    MutexLock lock(mutex_);
    writing_ = false;
    writer_ended_ = true;
    drained_.notify_all();
}

} // namespace tessaron
