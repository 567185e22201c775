#include "bus/Hub.hpp"
#include "bus/LocalClient.hpp"
#include "bus/address_derivation.hpp"
#include "bus/identity_text.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <thread>

// How a hub gets an address and a name, and its clients their addresses, where nobody assigns them:
// by asking who has the one that is wanted. Runs on the caller's thread, while the answers come in
// on the wire's worker; touches the identity, and reads the devices that have been heard.

namespace tessaron::bus {
namespace {

/// In an identity's name, so that a terminator follows.
constexpr std::size_t K_MAX_NAME_SIZE = proto::bus::K_IDENTITY_TEXT_SIZE - 1;

/// From this address on, none can be a node's own.
constexpr std::uint32_t K_FIRST_RESERVED_ADDRESS = 0xFFFFFFFE;

/// Attempts after which alternates depend on chance. The first is the same at every start; but
/// nodes of one name that start together would follow each other from one alternate to the next.
constexpr unsigned K_STEADY_ATTEMPTS = 2;

constexpr int K_CLIENT_PROBES = 2;

/// So many in a row are never taken, unless nearly all there are.
constexpr unsigned K_MAX_PICKS = 1000;

std::string warning(std::string const& text) {
    return "[bus] WARNING: " + text;
}

std::string probe_number(unsigned attempt) {
    return "(probe " + std::to_string(attempt + 1) + "/" + std::to_string(Hub::K_ADDRESS_ATTEMPTS) +
           ") - retrying with an alternate address";
}

std::string in_use(char const* kind, std::uint32_t candidate, unsigned attempt) {
    return warning(kind + std::to_string(candidate) + " already in use on this bus " +
                   probe_number(attempt));
}

std::string claimed_at_same_instant(char const* kind, std::uint32_t candidate, unsigned attempt) {
    return warning(kind + std::to_string(candidate) +
                   " was claimed by another device at the same instant, right after announcing " +
                   probe_number(attempt));
}

std::string giving_up(std::string const& commitment, std::uint32_t candidate,
                      std::string const& consequence) {
    return warning("giving up after " + std::to_string(Hub::K_ADDRESS_ATTEMPTS) +
                   " probe attempts - committing " + commitment + std::to_string(candidate) +
                   " even though it still appears to be in use; " + consequence +
                   " may now both answer to the same address");
}

std::string giving_up_for_client(std::uint32_t candidate) {
    return giving_up("local client to address ", candidate, "two clients");
}

constexpr char K_NODE[] = "address ";
constexpr char K_LOCAL_CLIENT[] = "local-client address ";

} // namespace

struct Hub::Claimant {
    char const* kind; ///< As the warnings call it.
    std::uint64_t hardware_id;
    std::uint64_t chance; ///< Different from those of all who might compete.
    std::string label;
};

std::uint32_t Hub::candidate(Claimant const& claimant, std::uint32_t preferred, unsigned attempt) {
    if (attempt == 0 && preferred < K_FIRST_RESERVED_ADDRESS) {
        return preferred;
    }
    std::uint64_t const chance = attempt < K_STEADY_ATTEMPTS ? 0 : claimant.chance;
    return derive_alternate_address(attempt, claimant.hardware_id ^ chance, claimant.label);
}

bool Hub::is_address_claimed_by_peer(std::uint32_t address, Clock::time_point since) const {
    return devices_.is_claimed(address, since);
}

bool Hub::probe(std::uint32_t candidate, Clock::time_point since) {
    discover();
    std::this_thread::sleep_for(settings_.address_probe_window);
    return is_address_claimed_by_peer(candidate, since);
}

void Hub::resolve_address() {
    std::uint32_t wanted = preferred_address_;
    bool has_checked_name = false;
    auto const commit = [&] {
        address_ = wanted;
        wire_.set_contested_source(wanted);
        if (!std::exchange(has_checked_name, true)) {
            resolve_name_collision();
        }
        ready_ = true;
        announce();
    };
    for (unsigned attempt = 0; attempt < K_ADDRESS_ATTEMPTS; ++attempt) {
        // Who has no address yet is answered by everybody, however often it asks.
        ready_ = false;
        wire_.set_source(BROADCAST_ADDRESS);
        wanted = candidate(
            {K_NODE, settings_.hardware_id, chance_,
             identity_field_to_string(identity_snapshot().name, proto::bus::K_IDENTITY_TEXT_SIZE)},
            preferred_address_, attempt);
        auto const since = Clock::now();
        if (probe(wanted, since)) {
            emit_warning(in_use(K_NODE, wanted, attempt));
            continue;
        }
        commit();
        std::this_thread::sleep_for(settings_.address_probe_window);
        if (!is_address_claimed_by_peer(wanted, since)) {
            wire_.set_source(wanted);
            return;
        }
        emit_warning(claimed_at_same_instant(K_NODE, wanted, attempt));
    }
    commit();
    wire_.set_source(wanted);
    emit_warning(giving_up("to address ", wanted, "this Hub and another device"));
}

void Hub::resolve_name_collision() {
    std::string const name =
        identity_field_to_string(identity_snapshot().name, proto::bus::K_IDENTITY_TEXT_SIZE);
    if (name.empty() || !devices_.has_name(name)) {
        return;
    }
    std::string const base = name.substr(0, K_MAX_NAME_SIZE);
    for (char digit = '2'; digit <= '9'; ++digit) {
        std::string const renamed = base + digit;
        if (devices_.has_name(renamed)) {
            continue;
        }
        {
            MutexLock lock(identity_mutex_);
            std::fill(std::begin(identity_.name), std::end(identity_.name), '\0');
            std::memcpy(identity_.name, renamed.data(),
                        std::min(renamed.size(), sizeof identity_.name));
        }
        emit_warning(warning("name '" + name + "' already in use on this bus - renamed to '" +
                             renamed + "'"));
        return;
    }
    emit_warning(warning("name '" + name +
                         "' already in use on this bus, and every auto-suffix up to '" + base +
                         "9' is ALSO taken - keeping the colliding name; two devices will now "
                         "answer to the same name"));
}

bool Hub::is_own_address(std::uint32_t candidate) const {
    return candidate == address_ || local_clients_.has(candidate);
}

void Hub::want_local_client_candidates(std::set<std::uint32_t>& candidates) {
    std::erase_if(candidates,
                  [this](std::uint32_t candidate) { return is_own_address(candidate); });
    for (std::uint32_t const candidate : candidates) {
        local_clients_.want(candidate);
    }
    if (ready_ && !candidates.empty()) {
        announce();
    }
}

void Hub::probe_local_client_candidates(std::set<std::uint32_t>& candidates) {
    std::erase_if(candidates,
                  [this](std::uint32_t candidate) { return is_own_address(candidate); });
    // A peer that has answered this hub just now keeps silent when it is asked again, so what it
    // said then still counts.
    auto const since = Clock::now() - settings_.discovery_debounce;
    for (int tries = 0; tries < K_CLIENT_PROBES && !candidates.empty(); ++tries) {
        discover();
        std::this_thread::sleep_for(settings_.address_probe_window);
        std::erase_if(candidates, [&](std::uint32_t candidate) {
            return is_address_claimed_by_peer(candidate, since);
        });
    }
}

std::uint32_t Hub::resolve_local_client_address(std::uint32_t preferred, std::uint64_t hardware_id,
                                                std::string const& label) {
    return resolve_local_client_addresses({{preferred, hardware_id, label}}).front();
}

std::vector<std::uint32_t>
Hub::resolve_local_client_addresses(std::vector<AddressWish> const& wishes) {
    std::vector<std::uint32_t> wanted(wishes.size());
    std::set<std::size_t> open;
    for (std::size_t i = 0; i < wishes.size(); ++i) {
        open.insert(i);
    }
    std::set<std::uint32_t> taken; // by an earlier one of the wishes
    for (unsigned attempt = 0; attempt < K_ADDRESS_ATTEMPTS && !open.empty(); ++attempt) {
        std::set<std::uint32_t> free;
        for (std::size_t const i : open) {
            auto const& [preferred, hardware_id, label] = wishes[i];
            wanted[i] =
                candidate({K_LOCAL_CLIENT, hardware_id, address_, label}, preferred, attempt);
            free.insert(wanted[i]);
        }
        std::erase_if(free, [&](std::uint32_t candidate) { return taken.contains(candidate); });
        want_local_client_candidates(free);
        probe_local_client_candidates(free);
        for (auto it = open.begin(); it != open.end();) {
            std::uint32_t const address = wanted[*it];
            bool const is_free = free.erase(address) != 0;
            if (is_free) {
                taken.insert(address);
            } else {
                if (!taken.contains(address)) {
                    local_clients_.give_up(address);
                }
                emit_warning(in_use(K_LOCAL_CLIENT, address, attempt));
            }
            it = is_free ? open.erase(it) : std::next(it);
        }
    }
    for (std::size_t const i : open) {
        emit_warning(giving_up_for_client(wanted[i]));
    }
    return wanted;
}

std::uint32_t Hub::pick_local_client_address(std::uint64_t hardware_id, std::string const& label) {
    auto const is_taken = [this](std::uint32_t address) {
        return is_own_address(address) || devices_.is_claimed(address, Clock::time_point::min());
    };
    unsigned attempt = 1;
    std::uint32_t address = derive_alternate_address(attempt, hardware_id, label);
    while (is_taken(address) && attempt < K_MAX_PICKS) {
        address = derive_alternate_address(++attempt, hardware_id, label);
    }
    return address;
}

std::shared_ptr<LocalClient> Hub::connect_and_announce(std::uint32_t address,
                                                       NodeIdentity const& identity) {
    auto client = connect(address, identity);
    announce();
    return client;
}

std::shared_ptr<LocalClient> Hub::connect_resolved(std::uint32_t preferred,
                                                   NodeIdentity const& identity,
                                                   std::uint64_t hardware_id) {
    Claimant const claimant{
        K_LOCAL_CLIENT, hardware_id, address_,
        identity_field_to_string(identity.name, proto::bus::K_IDENTITY_TEXT_SIZE)};
    std::uint32_t wanted = preferred;
    for (unsigned attempt = 0; attempt < K_ADDRESS_ATTEMPTS; ++attempt) {
        wanted = candidate(claimant, preferred, attempt);
        auto const since = Clock::now();
        std::set<std::uint32_t> free{wanted};
        probe_local_client_candidates(free);
        if (free.empty()) {
            emit_warning(in_use(K_LOCAL_CLIENT, wanted, attempt));
            continue;
        }
        auto client = connect_and_announce(wanted, identity);
        std::this_thread::sleep_for(settings_.address_probe_window);
        if (!is_address_claimed_by_peer(wanted, since)) {
            return client;
        }
        emit_warning(claimed_at_same_instant(K_LOCAL_CLIENT, wanted, attempt));
    }
    emit_warning(giving_up_for_client(wanted));
    return connect_and_announce(wanted, identity);
}

} // namespace tessaron::bus
