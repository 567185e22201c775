#include "logger/ILogger.hpp"

#include <utility>

namespace tessaron {

ILogger::ILogger(std::string label, LogLevel level, ITimeProvider const& clock)
    : label_(std::move(label)), level_(level), clock_(clock) {
}

void ILogger::on_log_call(LogLevel, std::string const&) noexcept {
}

void ILogger::on_line_written(LogLevel, std::string const&) {
}

void ILogger::submit(LogLevel level, std::string const& message) noexcept {
    on_log_call(level, message);
    if (level >= get_level()) {
        log_impl(level, clock_.time_stamp(), message);
    }
}

} // namespace tessaron
