#include "logger/SystemTimeProvider.hpp"

namespace tessaron {

ITimeProvider::TimePoint SystemTimeProvider::now() const {
    return std::chrono::time_point_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now());
}

} // namespace tessaron
