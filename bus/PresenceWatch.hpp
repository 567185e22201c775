#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <cstdint>
#include <unordered_map>

namespace tessaron::bus {

/// Tells who of those that were heard once is still there. Nobody says goodbye on the bus, and
/// whoever has nothing to say is silent: one that has been for a time is to be asked, and again
/// after that time, and who has not been heard after it once more is gone until he is heard.
///
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none.
class PresenceWatch {
public:
    using Time = std::chrono::steady_clock::time_point;
    enum class State : std::uint8_t { PRESENT, TO_BE_ASKED, GONE };

    static constexpr unsigned K_QUESTIONS = 2;

    explicit PresenceWatch(std::chrono::milliseconds patience) : patience_(patience) {}

    /// Of somebody who was looked at before; costs others nothing.
    void heard(std::uint32_t address, Time now) TESSARON_EXCLUDES(mutex_);
    /// `last_seen`: when he was heard as far as the caller knows. Who is to be asked is counted as
    /// asked.
    [[nodiscard]] State look(std::uint32_t address, Time last_seen, Time now)
        TESSARON_EXCLUDES(mutex_);

private:
    struct Watched {
        Time heard;
        Time asked;
        unsigned questions = 0; ///< Since he was heard.
    };

    std::chrono::milliseconds const patience_;
    Mutex mutex_;
    std::unordered_map<std::uint32_t, Watched> watched_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
