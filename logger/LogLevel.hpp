#pragma once

#include <cstdint>
#include <string_view>

namespace tessaron {

/// How much a log line matters. The numbers travel on the bus and stand in configuration files.
enum class LogLevel : std::uint8_t {
    TRACE = 0,
    INFO = 1,
    WARNING = 2,
    ERROR = 3,
};

/// The name as it stands in a line; "UNKNOWN" for a number that is no level.
constexpr std::string_view to_string(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::TRACE:
        return "TRACE";
    case LogLevel::INFO:
        return "INFO";
    case LogLevel::WARNING:
        return "WARNING";
    case LogLevel::ERROR:
        return "ERROR";
    }
    return "UNKNOWN";
}

} // namespace tessaron
