#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <cstdint>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tessaron::bus {

class LocalClient;

/// The clients that this process hosts, by address, and the addresses that it wants for more.
///
/// Ownership: none; a client ends with its last shared pointer, and is skipped from then on. Its
/// address stays taken until another client is entered under it.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none.
class LocalClientRegistry {
public:
    /// Replaces an earlier client of that address.
    void register_client(std::uint32_t address, std::weak_ptr<LocalClient> client)
        TESSARON_EXCLUDES(mutex_);
    bool has(std::uint32_t address) const TESSARON_EXCLUDES(mutex_);
    /// The clients that are still alive, in no order.
    std::vector<std::pair<std::uint32_t, std::shared_ptr<LocalClient>>> live_snapshot() const
        TESSARON_EXCLUDES(mutex_);

    /// Until a client is entered under it, or it is given up.
    void want(std::uint32_t address) TESSARON_EXCLUDES(mutex_);
    void give_up(std::uint32_t address) TESSARON_EXCLUDES(mutex_);
    std::set<std::uint32_t> wanted() const TESSARON_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    std::unordered_map<std::uint32_t, std::weak_ptr<LocalClient>>
        clients_ TESSARON_GUARDED_BY(mutex_);
    std::set<std::uint32_t> wanted_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
