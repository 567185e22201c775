#include "bus/network_map_join.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace tessaron::bus {
namespace {

using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;
using proto::bus::TopicDescription;

/// The list in order, with one entry for each key: the first, into which `merge` put the others.
template <typename Entry, typename Key, typename Merge>
void unite(std::vector<Entry>& list, Key Entry::*key, Merge&& merge) {
    std::stable_sort(list.begin(), list.end(),
                     [key](Entry const& a, Entry const& b) { return a.*key < b.*key; });
    std::size_t kept = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (kept > 0 && list[kept - 1].*key == list[i].*key) {
            merge(list[kept - 1], std::move(list[i]));
        } else if (kept++ != i) {
            list[kept - 1] = std::move(list[i]);
        }
    }
    list.resize(kept);
}

template <typename Entry>
void append(std::vector<Entry>& list, std::vector<Entry>&& others) {
    list.insert(list.end(), std::make_move_iterator(others.begin()),
                std::make_move_iterator(others.end()));
}

template <typename Named>
void take_name(Named& named, Named& other) {
    if (named.name.empty()) {
        named.name = std::move(other.name);
    }
}

void unite_modules(std::vector<ModuleSummary>& modules) {
    unite(modules, &ModuleSummary::address, [](ModuleSummary& module, ModuleSummary&& other) {
        take_name(module, other);
        append(module.topics, std::move(other.topics));
    });
    for (ModuleSummary& module : modules) {
        unite(module.topics, &TopicDescription::name, [](TopicDescription&, TopicDescription&&) {});
    }
}

void unite_hubs(std::vector<HubSummary>& hubs) {
    unite(hubs, &HubSummary::address, [](HubSummary& hub, HubSummary&& other) {
        take_name(hub, other);
        hub.value = hub.value != 0 ? hub.value : other.value;
        append(hub.modules, std::move(other.modules));
    });
    for (HubSummary& hub : hubs) {
        unite_modules(hub.modules);
    }
}

/// The hubs of `domain` are in order.
bool shares_a_hub(NetworkDomain const& domain, NetworkDomain const& other) {
    return std::any_of(other.hubs.begin(), other.hubs.end(), [&](HubSummary const& hub) {
        auto const found = std::lower_bound(
            domain.hubs.begin(), domain.hubs.end(), hub.address,
            [](HubSummary const& entry, std::uint32_t address) { return entry.address < address; });
        return found != domain.hubs.end() && found->address == hub.address &&
               found->name == hub.name && found->value == hub.value;
    });
}

/// Takes over what `other`, which stands for the same domain, holds. The hubs are in order then.
void add_domain(NetworkDomain& domain, NetworkDomain&& other) {
    if (domain.address == 0) {
        domain.address = other.address;
    }
    append(domain.hubs, std::move(other.hubs));
    unite_hubs(domain.hubs);
    for (NetworkDomain& child : other.children) {
        auto const same = std::find_if(
            domain.children.begin(), domain.children.end(), [&](NetworkDomain const& known) {
                return known.address == child.address && shares_a_hub(known, child);
            });
        if (same != domain.children.end()) {
            add_domain(*same, std::move(child));
        } else if (domain.children.size() < K_MAX_JOINED_CHILDREN &&
                   !(child.hubs.empty() && child.children.empty())) {
            NetworkDomain made;
            add_domain(made, std::move(child));
            domain.children.push_back(std::move(made));
        }
    }
}

} // namespace

NetworkDomain network_map_join(std::vector<NetworkDomain> answers) {
    NetworkDomain joined;
    for (NetworkDomain& answer : answers) {
        add_domain(joined, std::move(answer));
    }
    return joined;
}

} // namespace tessaron::bus
