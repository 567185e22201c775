#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

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

    /// `now()` as the text of a `TimeStamp`.
    std::string time_stamp() const;
};

/// A time in local time with milliseconds: `2024-01-31_12:34:56.789`. It holds its own text, so
/// that stamping a line allocates nothing.
///
/// Thread safety: immutable after construction.
class TimeStamp {
public:
    explicit TimeStamp(ITimeProvider::TimePoint time);

    std::string_view text() const noexcept { return {text_.data(), length_}; }

private:
    std::array<char, 32> text_;
    std::size_t length_;
};

} // namespace tessaron
