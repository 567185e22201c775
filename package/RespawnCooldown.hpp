#pragma once

#include <chrono>
#include <map>
#include <string>

namespace tessaron {

/// Least time between two attempts of the supervisor to start the same package.
inline constexpr std::chrono::seconds K_PACKAGE_MANAGER_RESPAWN_COOLDOWN{3};

/// Remembers when the supervisor last tried to start each package, and says whether it may again.
///
/// The time counts from the last attempt, not from the process's death nor from an operator's
/// start, so the first attempt for a name is always allowed. Nothing is ever forgotten: a package
/// removed and installed again within the cooldown still waits for its end.
///
/// Thread safety: one thread at a time, the caller's duty.
class RespawnCooldown {
public:
    using Clock = std::chrono::steady_clock;

    /// True if an attempt may be made at `now`, which then counts as made.
    [[nodiscard]] bool try_attempt(std::string const& name, Clock::time_point now);

private:
    std::map<std::string, Clock::time_point> last_attempts_;
};

} // namespace tessaron
