// Encodes and decodes the bus's records for tests that know them in another language. Each line of
// the input asks one thing, and is answered by one line:
//
//     {"record": NAME, "value": RECORD}   the record's bytes, in hexadecimal
//     {"record": NAME, "hex": BYTES}      the record, or null when the bytes are refused

#include "bus/Envelope.hpp"
#include "bus/identity_text.hpp"
#include "proto/bus/NodeIdentity.hpp"
#include "proto/bus/discovery_records.hpp"
#include "proto/bus/network_map.hpp"
#include "proto/bus/topic_description.hpp"
#include "proto/bus/topic_match.hpp"

#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

using nlohmann::json;

namespace proto::bus {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(TopicParam, name, text, flag)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(TopicDescription, name, description, kind, params, flag)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(DiscoveryRecord, name, address, hops, note)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(HostedModuleInfo, address, name, topics)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(TopicsAndRoles, publications, subscriptions, roles, records,
                                   modules)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ModuleSummary, address, name, topics)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(HubSummary, address, name, value, modules)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(NetworkDomain, address, hubs, children)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(DiscoverNetworkRequest, max_depth, visited)

void to_json(json& value, NodeIdentity const& identity) {
    auto const text = [](auto const& field) {
        return tessaron::bus::identity_field_to_string(field, sizeof field);
    };
    value = {{"name", text(identity.name)},
             {"binary", text(identity.binary)},
             {"version", identity.version},
             {"group", text(identity.group)},
             {"extra", text(identity.extra)}};
}

void from_json(json const& value, NodeIdentity& identity) {
    identity =
        make_identity(value.at("name").get<std::string>(), value.at("binary").get<std::string>(),
                      value.at("version"), value.at("group").get<std::string>(),
                      value.at("extra").get<std::string>());
}

} // namespace proto::bus

namespace {

using proto::bus::Bytes;
using proto::bus::NodeIdentity;
using proto::bus::TopicDescription;

std::string to_hex(Bytes const& bytes) {
    constexpr char const* digits = "0123456789abcdef";
    std::string text;
    for (std::uint8_t const byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

Bytes from_hex(std::string const& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

Bytes to_bytes(std::string const& text) {
    return {text.begin(), text.end()};
}

std::string to_text(Bytes const& bytes) {
    return {bytes.begin(), bytes.end()};
}

struct Codec {
    std::function<Bytes(json const&)> encode;
    std::function<json(Bytes const&)> decode;
};

Codec discovery_response() {
    return {[](json const& value) {
                return encode_identity_topics_and_roles(value.at("identity").get<NodeIdentity>(),
                                                        value.get<proto::bus::TopicsAndRoles>());
            },
            [](Bytes const& bytes) {
                json value = proto::bus::decode_topics_and_roles_after_identity(bytes);
                value["identity"] = proto::bus::decode_identity(bytes);
                return value;
            }};
}

Codec identity_and_topic() {
    return {[](json const& value) {
                return encode_identity_and_topic(value.at("identity").get<NodeIdentity>(),
                                                 value.at("topic").get<std::string>());
            },
            [](Bytes const& bytes) {
                return json{{"identity", proto::bus::decode_identity(bytes)},
                            {"topic", proto::bus::decode_topic_after_identity(bytes)}};
            }};
}

Codec topic_line() {
    return {[](json const& value) {
                return to_bytes(encode_topic_description_line(value.get<TopicDescription>()));
            },
            [](Bytes const& bytes) {
                return json(proto::bus::decode_topic_description_line(to_text(bytes)));
            }};
}

Codec network_domain() {
    return {[](json const& value) {
                return encode_network_domain(value.get<proto::bus::NetworkDomain>());
            },
            [](Bytes const& bytes) {
                auto const domain = proto::bus::decode_network_domain(bytes);
                return domain ? json(*domain) : json();
            }};
}

Codec discover_network_request() {
    using proto::bus::DiscoverNetworkRequest;
    return {[](json const& value) { return value.get<DiscoverNetworkRequest>().build(); },
            [](Bytes const& bytes) {
                try {
                    return json(DiscoverNetworkRequest::parse(bytes));
                } catch (std::invalid_argument const&) {
                    return json();
                }
            }};
}

Codec envelope() {
    return {[](json const& value) {
                return tessaron::bus::encode_envelope(
                    {value.at("fields").get<std::map<std::string, std::string>>(),
                     from_hex(value.at("data"))});
            },
            [](Bytes const& bytes) {
                auto const read = tessaron::bus::try_decode_envelope(bytes);
                return read ? json{{"fields", read->fields}, {"data", to_hex(read->data)}} : json();
            }};
}

/// Of a topic's text, its id: two bytes, the least significant first.
Codec topic_id() {
    return {[](json const& value) {
                auto const id = proto::bus::topic_hash(value.get<std::string>().c_str());
                return Bytes{static_cast<std::uint8_t>(id), static_cast<std::uint8_t>(id >> 8)};
            },
            {}};
}

} // namespace

int main() {
    std::map<std::string, Codec> const codecs{
        {"discovery_response", discovery_response()},
        {"identity_and_topic", identity_and_topic()},
        {"topic_line", topic_line()},
        {"network_domain", network_domain()},
        {"discover_network_request", discover_network_request()},
        {"envelope", envelope()},
        {"topic_id", topic_id()},
    };
    try {
        for (std::string line; std::getline(std::cin, line);) {
            json const asked = json::parse(line);
            Codec const& codec = codecs.at(asked.at("record"));
            json const answer = asked.contains("hex")
                                    ? codec.decode(from_hex(asked.at("hex")))
                                    : json(to_hex(codec.encode(asked.at("value"))));
            // Bytes that are no text of any kind are for tests of their own.
            std::cout << answer.dump(-1, ' ', true, json::error_handler_t::replace) << std::endl;
        }
    } catch (std::exception const& error) {
        std::cerr << "bus_wire_tool: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
