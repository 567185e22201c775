#include "logger/ILogger.hpp"

#include <utility>

namespace tessaron {

ILogger::ILogger(std::string label, LogLevel level, ITimeProvider const& clock)
    : label_(std::move(label)), level_(level), clock_(clock) {
}

void ILogger::on_log_call(LogLevel, std::string_view, ITimeProvider::TimePoint) noexcept {
}

void ILogger::on_line_written(LogLevel, std::string const&) {
}

void ILogger::submit(LogLevel level, std::string_view message) noexcept {
    ITimeProvider::TimePoint const time = clock_.now();
    on_log_call(level, message, time);
    if (level >= get_level()) {
        log_impl(level, TimeStamp(time).text(), message);
    }
}

} // namespace tessaron
