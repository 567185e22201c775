#include "tests/programs/BusNodeCommands.hpp"

#include "bus/identity_text.hpp"
#include "tests/programs/bus_node_text.hpp"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace bus_node {

using proto::bus::MessageType;
using proto::bus::Origin;

BusNodeCommands::Words::Words(std::string const& line) : line_(line) {
}

std::string BusNodeCommands::Words::next() {
    if (cursor_ >= line_.size()) {
        throw std::invalid_argument("a word is missing");
    }
    std::size_t const end = std::min(line_.find(' ', cursor_), line_.size());
    std::string word = line_.substr(cursor_, end - cursor_);
    cursor_ = end + 1;
    return word;
}

std::uint32_t BusNodeCommands::Words::number() {
    return static_cast<std::uint32_t>(std::stoul(next()));
}

std::chrono::milliseconds BusNodeCommands::Words::milliseconds() {
    return std::chrono::milliseconds(number());
}

std::vector<std::uint8_t> BusNodeCommands::Words::bytes() {
    return parse_bytes(next());
}

std::string BusNodeCommands::Words::rest() {
    std::string rest = cursor_ < line_.size() ? line_.substr(cursor_) : "";
    cursor_ = line_.size();
    return rest;
}

BusNodeCommands::BusNodeCommands(tessaron::test::MulticastNode& node) : node_(node) {
    add_identity_commands();
    add_event_commands();
    add_request_commands();
    add_discovery_commands();
    add_client_commands();
}

std::string BusNodeCommands::obey(std::string const& line) {
    Words words(line);
    std::string const name = words.next();
    auto const command = commands_.find(name);
    if (command == commands_.end()) {
        throw std::invalid_argument("no command: " + name);
    }
    return command->second(words);
}

std::string BusNodeCommands::who() const {
    auto const identity = node_.hub.identity_snapshot();
    return std::to_string(node_.hub.address()) + " " +
           tessaron::bus::identity_field_to_string(identity.name, sizeof identity.name);
}

void BusNodeCommands::add_identity_commands() {
    commands_["who"] = [this](Words&) { return who(); };
    commands_["role"] = [this](Words& words) {
        node_.hub.add_role(words.rest());
        return std::string();
    };
    commands_["compression"] = [this](Words& words) {
        node_.hub.set_compression_enabled(words.next() == "on");
        return std::string();
    };
    commands_["rejoins"] = [this](Words&) {
        return std::to_string(node_.multicast.rejoin_count());
    };
    commands_["drops"] = [this](Words&) {
        return std::to_string(node_.hub.version_mismatch_drops());
    };
}

void BusNodeCommands::add_event_commands() {
    commands_["advertise"] = [this](Words& words) {
        std::string const topic = words.next();
        node_.hub.advertise(topic, words.rest(), proto::bus::TopicKind::EVENT);
        return std::string();
    };
    commands_["publish"] = [this](Words& words) {
        std::string const topic = words.next();
        node_.hub.publish_event(topic, words.bytes());
        return std::string();
    };
    commands_["publish-envelope"] = [this](Words& words) {
        std::string const topic = words.next();
        std::string const key = words.next();
        node_.hub.publish(topic, {{{key, words.next()}}, words.bytes()});
        return std::string();
    };
    commands_["subscribe"] = [this](Words& words) {
        std::string const pattern = words.next();
        node_.hub.subscribe_pattern(
            pattern,
            [pattern](std::string const& topic, Bytes const& payload, Origin const& origin) {
                print_line("event " + pattern + " " + topic + " " +
                           std::to_string(origin.hub_address()) + ":" +
                           std::to_string(origin.local_address()) + " " + summary(payload));
            },
            words.rest());
        return std::string();
    };
    commands_["subscribe-envelope"] = [this](Words& words) {
        std::string const topic = words.next();
        node_.hub.subscribe(
            topic,
            [topic](tessaron::bus::Envelope const& envelope) {
                print_line("envelope " + topic + " " + summary(encode_envelope(envelope)));
            },
            words.rest());
        return std::string();
    };
    // The node itself has no use for it: its subscriptions last as long as it does.
    commands_["unsubscribe"] = [this](Words& words) {
        node_.hub.send_envelope(
            MessageType::UNSUBSCRIBE_REQUEST, tessaron::bus::Hub::BROADCAST_ADDRESS,
            encode_identity_and_topic(node_.hub.identity_snapshot(), words.next()));
        return std::string();
    };
}

void BusNodeCommands::add_request_commands() {
    commands_["serve"] = [this](Words& words) {
        std::string const topic = words.next();
        node_.hub.on_request(
            topic,
            [](std::string const& asked, Bytes const& payload, std::uint32_t requester) {
                print_line("request " + asked + " " + std::to_string(requester) + " " +
                           summary(payload));
                return payload;
            },
            words.rest());
        return std::string();
    };
    commands_["serve-nothing"] = [this](Words& words) {
        std::string const topic = words.next();
        auto const refuse = [](Bytes const&) -> Bytes { throw std::runtime_error("not today"); };
        node_.hub.serve(topic, refuse, words.rest());
        return std::string();
    };
    commands_["request"] = [this](Words& words) {
        std::string const topic = words.next();
        auto const timeout = words.milliseconds();
        auto const reply = node_.hub.request_impl(topic, words.bytes(), timeout);
        return reply ? std::to_string(reply->source) + " " + summary(reply->payload)
                     : std::string("none");
    };
    commands_["collect"] = [this](Words& words) {
        std::uint32_t const target = words.number();
        std::string const topic = words.next();
        auto const timeout = words.milliseconds();
        auto const replies =
            node_.hub.request_to_and_collect(target, topic, words.bytes(), timeout);
        for (auto const& reply : replies) {
            print_line("reply " + std::to_string(reply.source) + " " + summary(reply.payload));
        }
        return std::to_string(replies.size());
    };
}

void BusNodeCommands::add_discovery_commands() {
    commands_["discover"] = [this](Words&) {
        node_.hub.discover();
        return std::string();
    };
    commands_["devices"] = [this](Words&) {
        for (auto const& [address, device] : node_.hub.discovered_devices()) {
            print_line("device " + std::to_string(address) + " " +
                       tessaron::bus::identity_field_to_string(device.identity.name,
                                                               sizeof device.identity.name));
        }
        return std::string();
    };
    commands_["report"] = [this](Words&) {
        print_lines("report", node_.hub.build_report());
        return std::string();
    };
    commands_["table"] = [this](Words&) {
        std::ostringstream out;
        node_.hub.print_table_report(out);
        print_lines("table", out.str());
        return std::string();
    };
    commands_["validate"] = [this](Words&) {
        node_.hub.validate_subscriptions();
        return std::string();
    };
}

} // namespace bus_node
