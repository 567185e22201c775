#include "bus/PresenceWatch.hpp"

#include <algorithm>

namespace tessaron::bus {

void PresenceWatch::heard(std::uint32_t address, Time now) {
    MutexLock lock(mutex_);
    if (auto const found = watched_.find(address); found != watched_.end()) {
        found->second.heard = now;
    }
}

PresenceWatch::State PresenceWatch::look(std::uint32_t address, Time last_seen, Time now) {
    MutexLock lock(mutex_);
    auto const [entry, is_new] = watched_.try_emplace(address, Watched{last_seen, last_seen, 0});
    Watched& watched = entry->second;
    watched.heard = std::max(watched.heard, last_seen);
    if (watched.heard > watched.asked) {
        watched.questions = 0;
    }
    if (now - std::max(watched.heard, watched.asked) < patience_) {
        return State::PRESENT;
    }
    if (watched.questions == K_QUESTIONS) {
        return State::GONE;
    }
    ++watched.questions;
    watched.asked = now;
    return State::TO_BE_ASKED;
}

} // namespace tessaron::bus
