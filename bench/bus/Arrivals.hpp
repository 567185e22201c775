#pragma once

#include "bench/bus/message.hpp"

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace bench::bus {

/// What has come in of a round's messages.
///
/// Thread safety: safe from any thread; one internal lock.
class Arrivals {
public:
    void begin(std::uint32_t round, std::size_t expected);
    /// A message as it came; those of other rounds are left out.
    void take(std::uint8_t const* message, std::size_t size);
    /// Returns when all are there, or nothing has come for a while: the figures as an object in
    /// JSON.
    std::string report();

private:
    std::string figures_locked();

    std::mutex mutex_;
    std::uint32_t round_ = 0;
    std::size_t expected_ = 0;
    std::size_t bytes_ = 0;
    std::size_t broken_ = 0;
    std::int64_t last_ = 0;
    std::vector<double> latencies_; ///< In microseconds.
};

} // namespace bench::bus
