#include "bus/Hub.hpp"
#include "bus/identity_text.hpp"
#include "bus/network_map_join.hpp"
#include "proto/bus/topic_match.hpp"

#include <algorithm>
#include <iterator>

// The network as seen through gateways: asking runs on the caller's thread, answering on the
// request worker, and the far side of a gateway answers on the thread that asks the near one.
// Touches the devices and who of them is there, the cache and the far sides.

namespace tessaron::bus {
namespace {

using proto::bus::DiscoverNetworkRequest;
using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;
using proto::bus::TopicDescription;

constexpr char K_TOPIC[] = "bus.discover_network";
/// Gateways asked on one bus: more have never been on any, unless somebody makes them up.
constexpr std::size_t K_MAX_ASKED = 32;

bool contains(std::vector<std::uint32_t> const& visited, std::uint32_t number) {
    return std::find(visited.begin(), visited.end(), number) != visited.end();
}

/// What stands for a hub among those visited. Addresses repeat beyond gateways, the far sides of
/// all of which have one; they do for hubs that tell nothing better.
std::uint32_t number_of(DiscoveredDevice const& device) {
    return device.network_number != 0 ? device.network_number : device.address;
}

bool is_gateway(DiscoveredDevice const& device) {
    return std::find(device.roles.begin(), device.roles.end(), Hub::K_GATEWAY_ROLE) !=
           device.roles.end();
}

TopicDescription described(std::string const& topic, DiscoveredDevice const& device) {
    auto const& known = device.publications;
    auto const found = std::find_if(known.begin(), known.end(),
                                    [&](auto const& entry) { return entry.name == topic; });
    TopicDescription bare;
    bare.name = topic;
    return found != known.end() ? *found : bare;
}

HubSummary summary_of(DiscoveredDevice const& device) {
    HubSummary hub;
    hub.address = device.address;
    hub.name = identity_field_to_string(device.identity.name, proto::bus::K_IDENTITY_TEXT_SIZE);
    hub.value = device.network_number;
    for (auto const& hosted : device.hosted_modules) {
        ModuleSummary module{hosted.address, hosted.name, {}};
        for (std::string const& topic : hosted.topics) {
            module.topics.push_back(described(topic, device));
        }
        hub.modules.push_back(std::move(module));
    }
    return hub;
}

/// The gateways among the devices that are not visited yet, those heard last first.
std::vector<DiscoveredDevice const*> gateways_to_ask(DeviceMap const& devices,
                                                     std::uint32_t own_address,
                                                     std::vector<std::uint32_t> const& visited) {
    std::vector<DiscoveredDevice const*> gateways;
    for (auto const& [address, device] : devices) {
        if (address != own_address && is_gateway(device) && !contains(visited, number_of(device))) {
            gateways.push_back(&device);
        }
    }
    std::sort(gateways.begin(), gateways.end(),
              [](auto const* a, auto const* b) { return a->last_seen > b->last_seen; });
    gateways.resize(std::min(gateways.size(), K_MAX_ASKED));
    return gateways;
}

void drop_topics(HubSummary& hub) {
    for (ModuleSummary& module : hub.modules) {
        module.topics.clear();
    }
}

void drop_topics(NetworkDomain& domain) {
    for (HubSummary& hub : domain.hubs) {
        drop_topics(hub);
    }
    for (NetworkDomain& child : domain.children) {
        drop_topics(child);
    }
}

/// As much of the map as one message takes.
proto::bus::Bytes encode_to_fit(NetworkDomain map) {
    using Drop = void (*)(NetworkDomain&);
    proto::bus::Bytes payload = encode_network_domain(map);
    for (Drop const drop :
         std::initializer_list<Drop>{[](NetworkDomain& domain) { drop_topics(domain); },
                                     [](NetworkDomain& domain) { domain.children.clear(); },
                                     [](NetworkDomain& domain) {
                                         for (HubSummary& hub : domain.hubs) {
                                             hub.modules.clear();
                                         }
                                     }}) {
        if (payload.size() > Hub::K_MAX_MESSAGE_SIZE) {
            drop(map);
            payload = encode_network_domain(map);
        }
    }
    return payload;
}

} // namespace

/// A walk through the network under way: what may be asked, and until when.
struct Hub::NetworkWalk {
    DiscoverNetworkRequest question;
    bool came_across = false; ///< From the far side: there it goes on without this hub.
    Clock::time_point deadline;

    Milliseconds remaining() const {
        return std::max(Milliseconds(0),
                        std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()));
    }
};

std::uint32_t network_number(std::string const& domain_name) {
    constexpr std::uint32_t K_NO_ADDRESS = 0x80000000; // Those have 16 bits.
    return proto::bus::fnv1a_hash32(domain_name.c_str(), 0x811C9DC5U) | K_NO_ADDRESS;
}

void Hub::serve_network_map() {
    on_request(
        K_TOPIC,
        [this](std::string const&, Bytes const& payload, std::uint32_t requester) {
            auto question = DiscoverNetworkRequest::parse(payload);
            return encode_to_fit(answer_network_map(std::move(question), requester));
        },
        "Recursive network topology discovery (internal) - see Hub::DiscoverNetwork()");
}

NetworkDomain Hub::answer_network_map(DiscoverNetworkRequest question, std::uint32_t requester) {
    question.max_depth = std::min<std::uint16_t>(question.max_depth, DEFAULT_TTL);
    // Who asked waits for longer than whoever is asked in turn.
    auto const time = DEFAULT_DISCOVERY_TIMEOUT * question.max_depth / (question.max_depth + 1);
    NetworkWalk walk{std::move(question), has_local_route(requester), Clock::now() + time};
    DeviceMap const devices = present_devices();
    std::vector<NetworkDomain> answers{own_network_domain(devices)};
    if (walk.question.max_depth == 0) {
        // That is asked often, and of everybody: each tells its own topics.
        for (HubSummary& hub : answers.front().hubs) {
            if (hub.address != address_) {
                drop_topics(hub);
            }
        }
    } else {
        auto beyond = network_cache_.find(walk.question, walk.came_across, Clock::now());
        if (!beyond) {
            bool is_complete = true;
            DiscoverNetworkRequest const asked = walk.question;
            beyond = ask_beyond(walk, devices, is_complete);
            if (is_complete && walk.remaining() > Milliseconds(0)) {
                network_cache_.put(asked, walk.came_across, *beyond, Clock::now());
            }
        }
        answers.push_back(std::move(*beyond));
    }
    return network_map_join(std::move(answers));
}

NetworkDomain Hub::discover_network(std::uint8_t max_depth, Milliseconds timeout) {
    auto const deadline = Clock::now() + timeout;
    std::uint32_t const msg_id = next_msg_id();
    auto const waiter = pending_.register_waiter(msg_id);
    // Nobody who answers this asks further: the gateways are asked from here.
    send_envelope_with_id(MessageType::REQUEST, BROADCAST_ADDRESS, msg_id, 0,
                          DiscoverNetworkRequest{}.build(), 0, proto::bus::topic_hash(K_TOPIC),
                          K_TOPIC);
    std::vector<NetworkDomain> answers{discover_network_impl(max_depth, {}, timeout, false)};
    NetworkWalk const rest{{}, false, deadline};
    for (RequestReply const& reply : waiter->collect(rest.remaining())) {
        if (auto answer = proto::bus::decode_network_domain(reply.payload)) {
            answers.push_back(std::move(*answer));
        }
    }
    pending_.unregister(msg_id);
    return network_map_join(std::move(answers));
}

NetworkDomain Hub::discover_network_impl(std::uint8_t max_depth, std::vector<std::uint32_t> visited,
                                         Milliseconds timeout, bool came_across) {
    if (came_across && contains(visited, network_number(own_domain_name()))) {
        return {};
    }
    NetworkWalk walk{{max_depth, std::move(visited)}, came_across, Clock::now() + timeout};
    DeviceMap const devices = present_devices();
    std::vector<NetworkDomain> answers{own_network_domain(devices)};
    if (max_depth > 0) {
        bool is_complete = true;
        answers.push_back(ask_beyond(walk, devices, is_complete));
    }
    return network_map_join(std::move(answers));
}

DeviceMap Hub::present_devices() {
    DeviceMap devices = discovered_devices();
    auto const now = Clock::now();
    for (auto device = devices.begin(); device != devices.end();) {
        auto const& [address, record] = *device;
        auto const state = address == address_ ? PresenceWatch::State::PRESENT
                                               : presence_.look(address, record.last_seen, now);
        if (state == PresenceWatch::State::TO_BE_ASKED) {
            discover(address);
        }
        device = state == PresenceWatch::State::GONE ? devices.erase(device) : std::next(device);
    }
    return devices;
}

NetworkDomain Hub::own_network_domain(DeviceMap const& devices) const {
    NetworkDomain domain;
    domain.address = settings_.domain;
    for (auto const& [address, device] : devices) {
        domain.hubs.push_back(summary_of(device));
    }
    return domain;
}

NetworkDomain Hub::ask_beyond(NetworkWalk& walk, DeviceMap const& devices, bool& is_complete) {
    struct Asked {
        std::uint32_t msg_id;
        std::shared_ptr<Waiter> waiter;
    };
    auto const gateways = gateways_to_ask(devices, address_, walk.question.visited);
    --walk.question.max_depth;
    walk.question.visited.push_back(network_number(own_domain_name()));
    for (DiscoveredDevice const* const gateway : gateways) {
        // None of them asks the others in turn.
        walk.question.visited.push_back(number_of(*gateway));
    }
    std::vector<Asked> asked;
    for (DiscoveredDevice const* const gateway : gateways) {
        std::uint32_t const msg_id = next_msg_id();
        asked.push_back({msg_id, pending_.register_waiter(msg_id)});
        send_envelope_with_id(MessageType::REQUEST, gateway->address, msg_id, 0,
                              walk.question.build(), 0, proto::bus::topic_hash(K_TOPIC), K_TOPIC);
    }
    std::vector<NetworkDomain> answers(1);
    if (!walk.came_across) {
        answers.front().children = far_sides(walk);
    }
    for (Asked const& question : asked) {
        auto const reply = question.waiter->wait_for_first(walk.remaining());
        pending_.unregister(question.msg_id);
        auto answer = reply ? proto::bus::decode_network_domain(reply->payload) : std::nullopt;
        is_complete = is_complete && answer;
        answers.push_back(answer ? std::move(*answer) : NetworkDomain());
    }
    return network_map_join(std::move(answers));
}

void Hub::add_far_side(NetworkSource source) {
    MutexLock lock(far_sides_mutex_);
    far_sides_.push_back(std::move(source));
}

std::vector<NetworkDomain> Hub::far_sides(NetworkWalk const& walk) const {
    std::vector<NetworkSource> sources;
    {
        MutexLock lock(far_sides_mutex_);
        sources = far_sides_;
    }
    std::vector<NetworkDomain> domains;
    for (NetworkSource const& source : sources) {
        domains.push_back(source(static_cast<std::uint8_t>(walk.question.max_depth),
                                 walk.question.visited, walk.remaining()));
    }
    return domains;
}

} // namespace tessaron::bus
