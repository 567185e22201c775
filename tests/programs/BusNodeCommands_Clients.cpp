#include "tests/programs/BusNodeCommands.hpp"
#include "tests/programs/bus_node_text.hpp"

#include <stdexcept>

// What the node's clients do, each told apart by its address.

namespace bus_node {

using tessaron::bus::LocalClient;

std::string BusNodeCommands::keep(Client client) {
    std::uint32_t const address = client->address();
    clients_[address] = std::move(client);
    return std::to_string(address);
}

LocalClient& BusNodeCommands::client(Words& words) {
    auto const entry = clients_.find(words.number());
    if (entry == clients_.end()) {
        throw std::invalid_argument("no such client");
    }
    return *entry->second;
}

void BusNodeCommands::add_client_commands() {
    commands_["connect"] = [this](Words& words) {
        std::uint32_t const address = words.number();
        std::string const name = words.next();
        return keep(node_.hub.connect(address, proto::bus::make_identity(name, "bus_node", 1)));
    };
    commands_["connect-resolved"] = [this](Words& words) {
        std::uint32_t const address = words.number();
        std::string const name = words.next();
        return keep(
            node_.hub.connect_resolved(address, proto::bus::make_identity(name, "bus_node", 1), 0));
    };
    commands_["client-leave"] = [this](Words& words) {
        clients_.erase(client(words).address());
        return std::string();
    };
    commands_["client-publish"] = [this](Words& words) {
        LocalClient& from = client(words);
        std::string const topic = words.next();
        return std::to_string(from.publish(topic, words.bytes()));
    };
    commands_["client-send"] = [this](Words& words) {
        LocalClient& from = client(words);
        std::uint32_t const target = words.number();
        std::string const topic = words.next();
        return std::to_string(from.send(target, topic, words.bytes()));
    };
    commands_["client-subscribe"] = [this](Words& words) {
        LocalClient& by = client(words);
        std::string const pattern = words.next();
        std::string const what = "client-event " + std::to_string(by.address()) + " " + pattern;
        by.subscribe(pattern, [what](std::string const& topic, Bytes const& payload,
                                     std::uint32_t source) {
            print_line(what + " " + topic + " " + std::to_string(source) + " " + summary(payload));
        });
        return std::string();
    };
    commands_["client-serve"] = [this](Words& words) {
        LocalClient& by = client(words);
        std::string const topic = words.next();
        std::string const what = "client-request " + std::to_string(by.address()) + " " + topic;
        by.serve(
            topic,
            [what](Bytes const& payload) {
                print_line(what + " " + summary(payload));
                return payload;
            },
            words.rest());
        return std::string();
    };
    commands_["client-request"] = [this](Words& words) {
        LocalClient& from = client(words);
        std::uint32_t const target = words.number();
        std::string const topic = words.next();
        auto const timeout = words.milliseconds();
        auto const reply = from.request_to(target, topic, words.bytes(), timeout);
        return reply ? summary(*reply) : std::string("none");
    };
}

} // namespace bus_node
