#include "bus/LocalClientRegistry.hpp"

namespace tessaron::bus {

void LocalClientRegistry::register_client(std::uint32_t address,
                                          std::weak_ptr<LocalClient> client) {
    MutexLock lock(mutex_);
    clients_[address] = std::move(client);
    wanted_.erase(address);
}

bool LocalClientRegistry::has(std::uint32_t address) const {
    MutexLock lock(mutex_);
    return clients_.contains(address);
}

std::vector<std::pair<std::uint32_t, std::shared_ptr<LocalClient>>>
LocalClientRegistry::live_snapshot() const {
    std::vector<std::pair<std::uint32_t, std::shared_ptr<LocalClient>>> live;
    MutexLock lock(mutex_);
    for (auto const& [address, client] : clients_) {
        if (auto alive = client.lock()) {
            live.emplace_back(address, std::move(alive));
        }
    }
    return live;
}

void LocalClientRegistry::want(std::uint32_t address) {
    MutexLock lock(mutex_);
    wanted_.insert(address);
}

void LocalClientRegistry::give_up(std::uint32_t address) {
    MutexLock lock(mutex_);
    wanted_.erase(address);
}

std::set<std::uint32_t> LocalClientRegistry::wanted() const {
    MutexLock lock(mutex_);
    return wanted_;
}

} // namespace tessaron::bus
