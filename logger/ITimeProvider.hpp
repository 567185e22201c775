#pragma once

#include <chrono>
#include <string>

namespace tessaron {

/// The wall clock, as something that a test can hold still and move.
///
/// Thread safety: safe from any thread; implementations keep it so.
/// Errors: none.
class ITimeProvider {
public:
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

    virtual ~ITimeProvider() = default;

    virtual TimePoint now() const = 0;

    /// `now()` in local time with milliseconds: `2024-01-31_12:34:56.789`.
    std::string time_stamp() const;
};

} // namespace tessaron
