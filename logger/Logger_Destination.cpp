// Where the logger's lines go: redirection, rotation and recovery.
// Rotation and recovery run on the writer thread, redirection on its caller's. All change the
// destination under the destination lock only, and log about it outside that lock.
#include "logger/Logger.hpp"

#include "app/utilities/fs_tools.hpp"
#include "logger/LineReader.hpp"
#include "logger/log_generations.hpp"

#include <algorithm>
#include <utility>

namespace tessaron {
namespace {

constexpr mode_t K_DIRECTORY_MODE = 0755;

/// Opens a file for the log, and makes its directory if only that is missing.
std::unique_ptr<ResilientFileBuffer> open_log_file(std::string const& path) {
    fs_tools::make_dir_once(fs_tools::dir_name(path), K_DIRECTORY_MODE);
    return std::make_unique<ResilientFileBuffer>(path);
}

} // namespace

bool Logger::redirect_to_directory(std::string const& directory) {
    return redirect_to_file(
        fs_tools::join_path(fs_tools::join_path(directory, get_label()), K_FILE_NAME));
}

bool Logger::redirect_to_file(std::string const& path) {
    log_self(LogLevel::INFO, "Redirecting log output to '", path, "'");
    flush();

    auto file = open_log_file(path);
    if (!file->is_open()) {
        std::string const fallback = tmp_fallback_path(path);
        log_self(LogLevel::WARNING, "Could not open '", path, "' - falling back to '", fallback,
                 "'");
        flush();
        file = open_log_file(fallback);
        if (!file->is_open()) {
            log_self(LogLevel::WARNING, "Could not open fallback '", fallback,
                     "' either - staying on the current output");
            return false;
        }
    }
    {
        MutexLock lock(destination_mutex_);
        confirm_file_locked();
        switch_file_locked(std::move(file));
        intended_path_ = path;
        write_pending_locked();
        line_count_ = count_lines(current_path_);
        generation_ = log_generations::next(current_path_);
    }
    log_self(LogLevel::INFO, "Log output redirected here from a previous destination");
    return true;
}

std::string Logger::tmp_fallback_path(std::string const& path) const {
    return K_FALLBACK_ROOT + get_label() + "/" + fs_tools::file_name(path);
}

std::unique_ptr<ResilientFileBuffer>
Logger::switch_file_locked(std::unique_ptr<ResilientFileBuffer> file) {
    stream_.rdbuf(file.get()); // this clears a failed state too
    current_path_ = file->path();
    return std::exchange(file_, std::move(file));
}

void Logger::confirm_file_locked() {
    if (file_ == nullptr) {
        return;
    }
    file_->confirm();
    if (file_->take_reopened()) {
        line_count_ = count_lines(current_path_);
    }
}

void Logger::write_pending_locked() {
    for (std::string& line : pending_lines_) {
        line.push_back('\n');
        stream_.write(line.data(), static_cast<std::streamsize>(line.size()));
    }
    if (!pending_lines_.empty()) {
        stream_.flush();
    }
    std::vector<std::string>().swap(pending_lines_);
}

bool Logger::file_outgrown_locked() const {
    std::uint64_t const limit = max_file_size_;
    return limit != 0 && file_ != nullptr && file_->size().value_or(0) > limit;
}

void Logger::rotate_no_flush() {
    std::string path;
    {
        MutexLock lock(destination_mutex_);
        // A redirect may have come in between.
        if (!file_outgrown_locked()) {
            return;
        }
        if (!file_->rotate(log_generations::backup_path(current_path_, generation_))) {
            return;
        }
        ++generation_;
        line_count_ = 0;
        path = current_path_;
    }
    log_generations::prune(path, kept_generations_);
}

void Logger::maybe_recover_destination() {
    auto const now = clock().now();
    if (now < next_recovery_check_) {
        return;
    }
    bool on_fallback = false;
    bool degraded = false;
    {
        MutexLock lock(destination_mutex_);
        if (intended_path_.empty()) {
            return;
        }
        confirm_file_locked();
        on_fallback = current_path_ != intended_path_;
        degraded = file_ != nullptr && file_->is_degraded_to_console();
    }
    next_recovery_check_ = now + K_RECOVERY_CHECK_INTERVAL;
    if (on_fallback) {
        try_recover_to_intended_path();
    } else if (degraded) {
        fall_back_to_tmp();
    }
}

void Logger::try_recover_to_intended_path() {
    std::string fallback;
    std::string intended;
    {
        // Held over the copying: a line written meanwhile would be in neither file in the end.
        MutexLock lock(destination_mutex_);
        if (current_path_ == intended_path_) {
            return;
        }
        fallback = current_path_;
        intended = intended_path_;
        confirm_file_locked();
        stream_.flush();
        auto file = open_log_file(intended);
        if (!file->append_contents_of(fallback)) {
            return; // the next check tries again
        }
        auto const former = switch_file_locked(std::move(file));
        line_count_ = count_lines(intended);
        // Numbers never go down, and never to that of a backup which stands there already.
        generation_ = std::max(generation_.load(), log_generations::next(intended));
        former->truncate(); // or its lines would be moved once more some day
    }
    line_index_.forget(); // if it knows the emptied file
    log_self(LogLevel::INFO, "Recovered '", intended, "' - migrated buffered lines from '",
             fallback, "' here");
}

void Logger::fall_back_to_tmp() {
    std::string intended;
    {
        MutexLock lock(destination_mutex_);
        intended = intended_path_;
    }
    std::string const fallback = tmp_fallback_path(intended);
    log_self(LogLevel::WARNING, "Lost '", intended, "' mid-run - falling back to '", fallback, "'");

    bool opened = false;
    {
        MutexLock lock(destination_mutex_);
        // A redirect may have come in between.
        if (current_path_ != intended || intended_path_ != intended) {
            return;
        }
        stream_.flush();
        auto file = open_log_file(fallback);
        opened = file->is_open();
        if (opened) {
            switch_file_locked(std::move(file));
            line_count_ = count_lines(fallback);
            generation_ = std::max(generation_.load(), log_generations::next(fallback));
        }
    }
    if (!opened) {
        log_self(LogLevel::WARNING, "Could not open fallback '", fallback,
                 "' either - staying on console");
    }
}

} // namespace tessaron
