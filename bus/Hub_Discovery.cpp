#include "bus/Hub.hpp"
#include "bus/LocalClient.hpp"
#include "bus/device_report.hpp"
#include "bus/identity_text.hpp"
#include "proto/bus/topic_match.hpp"

#include <algorithm>
#include <charconv>

// Who is on the bus: telling of this node, hearing of others, and reports of both. Handlers run on
// the wire's worker, reports on their callers' threads; touches the devices, and when whom was
// answered last.

namespace tessaron::bus {
namespace {

using proto::bus::TopicDescription;
using proto::bus::TopicKind;

/// Who asks from this address has none yet.
constexpr std::uint32_t K_NO_SOURCE = 0xFFFF;

constexpr std::uint8_t K_OWN_HOPS = 1;
constexpr char K_OWN_NOTE[] = "own domain";
/// What is forwarded lies behind this node. So no neighbour takes it for one of its own.
constexpr std::uint8_t K_FORWARDED_HOPS = 2;

std::string name_of(proto::bus::NodeIdentity const& identity) {
    return identity_field_to_string(identity.name, proto::bus::K_IDENTITY_TEXT_SIZE);
}

} // namespace

void Hub::discover() {
    discover(BROADCAST_ADDRESS);
}

void Hub::discover(std::uint32_t address) {
    send_envelope(MessageType::DISCOVERY_REQUEST, address, {});
}

DiscoveredDevice Hub::own_record() const {
    DiscoveredDevice own;
    own.identity = identity_snapshot();
    own.address = address_;
    own.network_number = network_number(own_domain_name());
    own.hosted_modules = hosted_modules_for_wire();
    own.last_seen = Clock::now();
    MutexLock lock(state_mutex_);
    for (auto const& [topic, description] : publications_) {
        own.publications.push_back(description);
    }
    for (auto const& [pattern, description] : subscribed_) {
        own.subscriptions.push_back({pattern, description, TopicKind::EVENT, {}, false});
    }
    own.roles.assign(roles_.begin(), roles_.end());
    return own;
}

std::vector<proto::bus::HostedModuleInfo> Hub::hosted_modules_for_wire() const {
    std::vector<proto::bus::HostedModuleInfo> modules;
    for (auto const& [address, client] : local_clients_.live_snapshot()) {
        modules.push_back({address, name_of(client->identity()), client->topics()});
    }
    std::sort(modules.begin(), modules.end(),
              [](auto const& a, auto const& b) { return a.address < b.address; });
    return modules;
}

std::string Hub::own_domain_name() const {
    char digits[16];
    auto const end = std::to_chars(std::begin(digits), std::end(digits), chance_, 16).ptr;
    return name_of(identity_snapshot()) + '#' + std::string(digits, end);
}

std::vector<proto::bus::DiscoveryRecord> Hub::build_discovery_records() const {
    std::vector<proto::bus::DiscoveryRecord> records{
        {own_domain_name(), settings_.domain, K_OWN_HOPS, K_OWN_NOTE}};
    for (auto const& [address, route] : routes_.snapshot()) {
        auto const device = devices_.find(address);
        records.push_back({device ? name_of(device->identity) : std::string(), address,
                           K_FORWARDED_HOPS, "forwarded"});
    }
    return records;
}

void Hub::send_discovery_response(std::uint32_t dest) {
    DiscoveredDevice own = own_record();
    proto::bus::TopicsAndRoles content;
    content.publications = std::move(own.publications);
    content.subscriptions = std::move(own.subscriptions);
    content.roles = std::move(own.roles);
    content.records = build_discovery_records();
    content.modules = std::move(own.hosted_modules);
    // So that of two who want the same one at the same time, one at least hears of the other.
    for (std::uint32_t const address : local_clients_.wanted()) {
        content.modules.push_back({address, "", {}});
    }
    send_envelope(MessageType::DISCOVERY_RESPONSE, dest,
                  encode_identity_topics_and_roles(own.identity, content));
}

void Hub::handle_discovery_request(std::uint32_t source) {
    if (!ready_) {
        return; // There is no address yet to answer from.
    }
    if (source == K_NO_SOURCE) {
        announce();
        return;
    }
    {
        MutexLock lock(debounce_mutex_);
        auto const now = Clock::now();
        auto const [last, is_first] = last_discovery_reply_.try_emplace(source, now);
        if (!is_first && now - last->second < settings_.discovery_debounce) {
            return;
        }
        last->second = now;
    }
    send_discovery_response(source);
}

void Hub::handle_discovery_response(std::uint32_t source, Bytes const& data) {
    if (data.size() < sizeof(NodeIdentity)) {
        return;
    }
    auto content = proto::bus::decode_topics_and_roles_after_identity(data);
    // While an address is contested, what is sent from it is heard: a twin's, and this node's own.
    if (!content.records.empty() && content.records.front().name == own_domain_name()) {
        return;
    }
    DiscoveredDevice device;
    if (!content.records.empty() && content.records.front().note == K_OWN_NOTE) {
        device.network_number = network_number(content.records.front().name);
    }
    learn_routes(content.records);
    for (auto const* topics : {&content.publications, &content.subscriptions}) {
        for (TopicDescription const& topic : *topics) {
            topics_.register_name(proto::bus::topic_hash(topic.name.c_str()), topic.name);
        }
    }
    device.identity = proto::bus::decode_identity(data);
    device.address = source;
    device.publications = std::move(content.publications);
    device.subscriptions = std::move(content.subscriptions);
    device.roles = std::move(content.roles);
    device.hosted_modules = std::move(content.modules);
    device.last_seen = Clock::now();
    devices_.upsert(source, std::move(device));
}

std::unordered_map<std::uint32_t, DiscoveredDevice> Hub::discovered_devices() const {
    auto devices = devices_.snapshot();
    auto own = own_record();
    devices.insert_or_assign(own.address, std::move(own));
    return devices;
}

HasPublisher Hub::known_publishers(DeviceMap const& devices) const {
    std::set<std::string> published;
    for (auto const& [address, device] : devices) {
        for (TopicDescription const& topic : device.publications) {
            if (topic.kind == TopicKind::EVENT) {
                published.insert(topic.name);
            }
        }
    }
    {
        MutexLock lock(state_mutex_);
        for (auto const& [topic, lease] : publisher_leases_) {
            published.insert(topic);
        }
    }
    return [published = std::move(published)](std::string const& pattern) {
        return std::any_of(published.begin(), published.end(), [&](std::string const& topic) {
            return proto::bus::glob_match(pattern, topic);
        });
    };
}

void Hub::validate_subscriptions() const {
    auto const has_any_publisher_for = known_publishers(discovered_devices());
    std::size_t unmatched = 0;
    std::string lines;
    MutexLock lock(state_mutex_);
    for (auto const& [topic, description] : subscribed_) {
        if (!has_any_publisher_for(topic)) {
            ++unmatched;
            lines += "  - " + topic + " (" + description + ")\n";
        }
    }
    if (unmatched > 0) {
        throw UnmatchedSubscriptionError(
            "Hub::ValidateSubscriptions: " + std::to_string(unmatched) +
            " subscription(s) have no known publisher:\n" + lines);
    }
}

std::string Hub::build_report() const {
    auto const devices = discovered_devices();
    return device_report(devices, known_publishers(devices));
}

void Hub::print_table_report(std::ostream& out) const {
    auto const devices = discovered_devices();
    print_device_tables(out, devices, known_publishers(devices));
}

} // namespace tessaron::bus
