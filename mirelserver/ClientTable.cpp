#include "mirelserver/ClientTable.hpp"

#include <algorithm>
#include <utility>

namespace mirelserver {

using tessaron::MutexLock;

namespace {

/// The length of the UTF-8 sequence that `first` begins; 0 if none begins with it.
std::size_t sequence_length(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xc2 || first > 0xf4) {
        return 0;
    }
    return first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

/// Text that may stand in a JSON list: UTF-8, without control characters.
bool is_listable(std::string_view text) {
    while (!text.empty()) {
        auto const first = static_cast<unsigned char>(text[0]);
        auto const length = sequence_length(first);
        if (length == 0 || length > text.size() || first < 0x20 || first == 0x7f ||
            !std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                         is_continuation)) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::chrono::seconds age_of(ClientTable::Clock::time_point heard,
                            ClientTable::Clock::time_point now) {
    return std::chrono::duration_cast<std::chrono::seconds>(
        std::max(now - heard, ClientTable::Clock::duration::zero()));
}

} // namespace

bool is_client_name(std::string_view name) {
    return !name.empty() && name.size() <= ClientTable::K_MAX_NAME_SIZE && name != "." &&
           name != ".." && name.find('/') == std::string_view::npos && is_listable(name);
}

bool is_client_address(std::string_view address) {
    return address.size() <= ClientTable::K_MAX_ADDRESS_SIZE && is_listable(address);
}

bool ClientTable::heard(std::string const& name, std::string const& address,
                        Clock::time_point now) {
    if (!is_client_name(name) || !is_client_address(address)) {
        return false;
    }
    MutexLock const lock(mutex_);
    Entry* const entry = entry_for_locked(name);
    if (entry == nullptr) {
        return false;
    }
    entry->address = address;
    entry->last_heard = now;
    return true;
}

bool ClientTable::attach(std::string const& name, Tunnel tunnel, Clock::time_point now) {
    if (!is_client_name(name)) {
        return false;
    }
    Tunnel earlier;
    {
        MutexLock const lock(mutex_);
        Entry* const entry = entry_for_locked(name);
        if (entry == nullptr) {
            return false;
        }
        entry->last_heard = now;
        earlier = std::exchange(entry->tunnel, std::move(tunnel));
    }
    if (earlier) {
        earlier->close();
    }
    return true;
}

void ClientTable::detach(std::string const& name, IStreamOpener const* tunnel,
                         Clock::time_point now) {
    Tunnel dropped; // dies after the lock
    MutexLock const lock(mutex_);
    auto const found = entries_.find(name);
    if (found != entries_.end() && found->second.tunnel.get() == tunnel) {
        found->second.last_heard = now;
        dropped = std::exchange(found->second.tunnel, nullptr);
    }
}

void ClientTable::close_tunnels() {
    for (auto const& client : list(Clock::now())) {
        if (client.tunnel) {
            client.tunnel->close();
        }
    }
}

std::optional<ClientTable::Client> ClientTable::find(std::string const& name,
                                                     Clock::time_point now) const {
    MutexLock const lock(mutex_);
    auto const found = entries_.find(name);
    if (found == entries_.end()) {
        return std::nullopt;
    }
    Entry const& entry = found->second;
    return Client{name, entry.address, age_of(entry.last_heard, now), entry.tunnel};
}

std::vector<ClientTable::Client> ClientTable::list(Clock::time_point now) const {
    MutexLock const lock(mutex_);
    std::vector<Client> clients;
    clients.reserve(entries_.size());
    for (auto const& [name, entry] : entries_) {
        clients.push_back({name, entry.address, age_of(entry.last_heard, now), entry.tunnel});
    }
    return clients;
}

ClientTable::Entry* ClientTable::entry_for_locked(std::string const& name) {
    auto const found = entries_.find(name);
    if (found != entries_.end()) {
        return &found->second;
    }
    if (entries_.size() >= K_MAX_CLIENTS) {
        auto oldest = entries_.end();
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            if (!entry->second.tunnel && (oldest == entries_.end() ||
                                          entry->second.last_heard < oldest->second.last_heard)) {
                oldest = entry;
            }
        }
        if (oldest == entries_.end()) {
            return nullptr;
        }
        entries_.erase(oldest);
    }
    return &entries_[name];
}

} // namespace mirelserver
