#include "logger/Logger.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "logger/log_generations.hpp"

#include <fcntl.h>
#include <iostream>
#include <utility>

namespace tessaron {
namespace {

template <typename Sink>
std::shared_ptr<Sink const> share(Sink sink) {
    return sink ? std::make_shared<Sink const>(std::move(sink)) : nullptr;
}

} // namespace

Logger::Logger(std::string label, LogLevel level, ITimeProvider const& clock)
    : AsyncOstreamLogger(std::move(label), level, clock, stream_), stream_(&console_buffer_) {
}

Logger::~Logger() {
    stop_async(); // the writer thread uses the members below
}

void Logger::on_log_call(LogLevel level, std::string_view message,
                         ITimeProvider::TimePoint time) noexcept {
    trace_.record(static_cast<std::uint64_t>(time.time_since_epoch().count()), level, message);
    if (level != LogLevel::ERROR) {
        return;
    }
    std::shared_ptr<IncidentTriggerSink const> sink;
    {
        MutexLock lock(sinks_mutex_);
        sink = incident_trigger_sink_;
    }
    if (sink) {
        (*sink)(level, std::string(message));
    }
}

void Logger::on_line_streamed_locked(std::string const& line) {
    if (current_path_.empty() && pending_lines_.size() < K_PENDING_LINES_LIMIT) {
        pending_lines_.push_back(line);
    }
    written_.number = ++line_count_;
    written_.generation = generation_;
    written_.on_console = file_ == nullptr;
    written_.file_outgrown = file_outgrown_locked();
}

void Logger::on_batch_streamed_locked() {
    confirm_file_locked();
}

void Logger::on_line_written(LogLevel level, std::string const& line) {
    if (verbose_console_echo_ && !written_.on_console) {
        std::cout << line << std::endl;
    }
    if (level != LogLevel::TRACE) {
        std::shared_ptr<LineSink const> sink;
        {
            MutexLock lock(sinks_mutex_);
            sink = line_sink_;
        }
        if (sink) {
            (*sink)(written_.number, line, written_.generation);
        }
    }
    if (written_.file_outgrown) {
        rotate_no_flush();
    }
    maybe_recover_destination();
}

void Logger::on_line_lost() {
    // Another destination is the way out of a failed stream.
    maybe_recover_destination();
}

LogStats Logger::stats() {
    flush();
    LogStats stats;
    {
        MutexLock lock(destination_mutex_);
        stats.generation = generation_;
        stats.path = current_path_;
        if (stats.path.empty()) {
            return stats;
        }
        stats.line_count = line_count_;
    }
    std::error_code unreadable; // a size of 0, then
    stats.file_size_bytes = fs_tools::file_size(stats.path, unreadable);
    return stats;
}

LogRange Logger::read_lines(std::uint64_t generation, std::uint64_t from_line,
                            std::uint64_t to_line) {
    flush();
    std::string path;
    UniqueFd file;
    {
        // Opened under the lock, so that no rotation can give the path another meaning first.
        MutexLock lock(destination_mutex_);
        path = current_path_;
        if (!path.empty() && generation != generation_) {
            path = log_generations::backup_path(path, generation);
            if (!fs_tools::is_reg(path)) {
                return {};
            }
        }
        file = open_file(path, O_RDONLY);
    }
    return line_index_.read(path, file.get(), from_line, to_line);
}

void Logger::register_line_sink(LineSink sink) {
    std::shared_ptr<LineSink const> former = share(std::move(sink));
    MutexLock lock(sinks_mutex_);
    line_sink_.swap(former);
}

void Logger::set_incident_trigger_sink(IncidentTriggerSink sink) {
    std::shared_ptr<IncidentTriggerSink const> former = share(std::move(sink));
    MutexLock lock(sinks_mutex_);
    incident_trigger_sink_.swap(former);
}

} // namespace tessaron
