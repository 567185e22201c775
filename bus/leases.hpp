#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace tessaron::bus {

/// That another node publishes a topic, or wants it, and when it last said so. No timer purges
/// leases; their age is for readers of the tables.
struct LeaseEntry {
    std::uint32_t address = 0;
    std::chrono::steady_clock::time_point renewed;
};

/// By topic; one entry at most for each topic and address.
///
/// Thread safety: one thread at a time, the caller's duty.
using LeaseTable = std::multimap<std::string, LeaseEntry>;

/// A full table takes no new leases, and still renews those that it has; none is taken for a topic
/// whose name is too long for the `TopicRegistry`. Peers name topics as they like, and must not
/// fill the memory with them.
inline constexpr std::size_t K_MAX_LEASES = 65536;

/// Renews the lease of the topic and address, or adds one.
void upsert_lease(LeaseTable& leases, std::string const& topic, std::uint32_t address,
                  std::chrono::steady_clock::time_point now);

/// Ends the address's leases of all topics that match the pattern.
void erase_leases(LeaseTable& leases, std::string const& pattern, std::uint32_t address);

} // namespace tessaron::bus
