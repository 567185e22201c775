#include "bus/leases.hpp"

#include "bus/TopicRegistry.hpp"
#include "proto/bus/topic_match.hpp"

#include <algorithm>

namespace tessaron::bus {

void upsert_lease(LeaseTable& leases, std::string const& topic, std::uint32_t address,
                  std::chrono::steady_clock::time_point now) {
    auto const [first, last] = leases.equal_range(topic);
    auto const found = std::find_if(
        first, last, [&](auto const& lease) { return lease.second.address == address; });
    if (found != last) {
        found->second.renewed = now;
    } else if (leases.size() < K_MAX_LEASES && topic.size() <= TopicRegistry::K_MAX_NAME_SIZE) {
        leases.emplace(topic, LeaseEntry{address, now});
    }
}

void erase_leases(LeaseTable& leases, std::string const& pattern, std::uint32_t address) {
    std::erase_if(leases, [&](auto const& lease) {
        return lease.second.address == address && proto::bus::glob_match(pattern, lease.first);
    });
}

} // namespace tessaron::bus
