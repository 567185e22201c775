#include "logger/ITimeProvider.hpp"

#include <array>
#include <ctime>
#include <limits>

namespace tessaron {
namespace {

constexpr std::size_t K_TIME_STAMP_BUFFER = 32;

/// One formatted second. Asking the time-zone rules costs more than the whole rest of a log call,
/// and thousands of lines may share a second, so each thread keeps its last one.
struct FormattedSecond {
    std::time_t second = std::numeric_limits<std::time_t>::min();
    std::array<char, K_TIME_STAMP_BUFFER> text{};
    std::size_t length = 0;

    void format(std::time_t new_second) {
        std::tm local{};
        localtime_r(&new_second, &local);
        // Room is left for ".mmm".
        length = std::strftime(text.data(), text.size() - 4, "%Y-%m-%d_%H:%M:%S", &local);
        second = new_second;
    }
};

} // namespace

std::string ITimeProvider::time_stamp() const {
    thread_local FormattedSecond cached;

    TimePoint const time = now();
    auto const whole_second = std::chrono::floor<std::chrono::seconds>(time);
    auto const second = static_cast<std::time_t>(whole_second.time_since_epoch().count());
    if (second != cached.second) {
        cached.format(second);
    }
    auto const milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time - whole_second).count();

    char* const end = cached.text.data() + cached.length;
    end[0] = '.';
    end[1] = static_cast<char>('0' + milliseconds / 100);
    end[2] = static_cast<char>('0' + milliseconds / 10 % 10);
    end[3] = static_cast<char>('0' + milliseconds % 10);
    return {cached.text.data(), cached.length + 4};
}

} // namespace tessaron
