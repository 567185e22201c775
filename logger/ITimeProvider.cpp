#include "logger/ITimeProvider.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>

namespace tessaron {
namespace {

/// One formatted second. Asking the time-zone rules costs more than the whole rest of a log call,
/// and thousands of lines may share a second, so each thread keeps its last one.
struct FormattedSecond {
    std::time_t second = std::numeric_limits<std::time_t>::min();
    std::array<char, 28> text{}; // a stamp has room for four bytes more, ".mmm"
    std::size_t length = 0;

    void format(std::time_t new_second) {
        std::tm local{};
        localtime_r(&new_second, &local);
        length = std::strftime(text.data(), text.size(), "%Y-%m-%d_%H:%M:%S", &local);
        second = new_second;
    }
};

} // namespace

std::string ITimeProvider::time_stamp() const {
    return std::string(TimeStamp(now()).text());
}

TimeStamp::TimeStamp(ITimeProvider::TimePoint time) {
    thread_local FormattedSecond cached;

    auto const whole_second = std::chrono::floor<std::chrono::seconds>(time);
    auto const second = static_cast<std::time_t>(whole_second.time_since_epoch().count());
    if (second != cached.second) {
        cached.format(second);
    }
    auto const milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time - whole_second).count();

    std::copy(cached.text.begin(), cached.text.end(), text_.begin());
    char* const end = text_.data() + cached.length;
    end[0] = '.';
    end[1] = static_cast<char>('0' + milliseconds / 100);
    end[2] = static_cast<char>('0' + milliseconds / 10 % 10);
    end[3] = static_cast<char>('0' + milliseconds % 10);
    length_ = cached.length + 4;
}

} // namespace tessaron
