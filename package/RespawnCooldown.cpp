#include "package/RespawnCooldown.hpp"

namespace tessaron {

bool RespawnCooldown::try_attempt(std::string const& name, Clock::time_point now) {
    auto const [last, is_first] = last_attempts_.try_emplace(name, now);
    if (!is_first && now - last->second < K_PACKAGE_MANAGER_RESPAWN_COOLDOWN) {
        return false;
    }
    last->second = now;
    return true;
}

} // namespace tessaron
