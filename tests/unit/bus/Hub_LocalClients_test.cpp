#include "bus/address_derivation.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace tessaron::bus {
namespace {

using test::Bytes;
using test::bytes_of;
using test::claim_settings;
using test::Collected;
using test::HubNode;
using test::K_LONG;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::RawNode;
using test::topic_hash;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using std::chrono::milliseconds;

proto::bus::NodeIdentity identity(std::string const& name = "client") {
    return proto::bus::make_identity(name, "hub-test", 1);
}

struct HubLocalClients : testing::Test {
    HubLocalClients() {
        peer.join();
        node.join();
        client = node.hub.connect(500, identity());
    }

    static void hear(LocalClient& listening, std::string const& pattern, Collected<Bytes>& heard) {
        listening.subscribe(pattern, [heard](std::string const&, Bytes const& payload,
                                             std::uint32_t) { heard.add(payload); });
    }

    /// The next message that is no discovery: of those that nodes make by themselves, clients hear
    /// what goes to everybody.
    static std::optional<Frame> next(LocalClient& client) {
        auto frame = client.next_frame(K_LONG);
        while (frame && (frame->type == MessageType::DISCOVERY_REQUEST ||
                         frame->type == MessageType::DISCOVERY_RESPONSE)) {
            frame = client.next_frame(K_LONG);
        }
        return frame;
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode node{bus, 200, "node"};
    std::shared_ptr<LocalClient> client;
};

TEST_F(HubLocalClients, AClientNeverHearsWhatItPublishedItself) {
    auto const other = node.hub.connect(501, identity("other"));
    Collected<Bytes> own;
    Collected<Bytes> others;
    hear(*client, "*", own);
    hear(*other, "*", others);
    client->publish("topic", bytes_of("by client"));
    other->publish("topic", bytes_of("by other"));
    EXPECT_THAT(own.all(), ElementsAre(bytes_of("by other")));
    EXPECT_THAT(others.all(), ElementsAre(bytes_of("by client")));
}

TEST_F(HubLocalClients, ADirectedEventNeedsNoSubscription) {
    peer.send(MessageType::EVENT, 500, bytes_of("directed"), "topic", 5);
    auto const frame = next(*client);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->type, MessageType::EVENT);
    EXPECT_EQ(frame->payload, bytes_of("directed"));
    EXPECT_EQ(frame->source, 9u);
    EXPECT_EQ(frame->return_route, 9u);
    EXPECT_EQ(frame->destination, 500u);
    EXPECT_EQ(frame->msg_id, 5u);
    EXPECT_EQ(frame->topic_id, topic_hash("topic"));
}

TEST_F(HubLocalClients, ABroadcastEventWithoutASubscriptionIsNotDelivered) {
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, bytes_of("unwanted"), "topic", 5);
    peer.send(MessageType::EVENT, 200, bytes_of("unwanted"), "topic", 6);
    peer.send(MessageType::EVENT, 500, bytes_of("marker"), "topic", 7);
    EXPECT_EQ(next(*client)->payload, bytes_of("marker"));
}

TEST_F(HubLocalClients, ARequestToEverybodyReachesEveryClient) {
    auto const other = node.hub.connect(501, identity("other"));
    peer.send(MessageType::REQUEST, Hub::BROADCAST_ADDRESS, bytes_of("all"), "topic", 5);
    peer.send(MessageType::REQUEST, 200, bytes_of("hub"), "topic", 6);
    for (auto const& each : {client, other}) {
        EXPECT_EQ(next(*each)->payload, bytes_of("all"));
        EXPECT_EQ(next(*each)->payload, bytes_of("hub"));
    }
}

TEST_F(HubLocalClients, TheSourceIsTheOriginsAndTheAnswerGoesToItsHub) {
    WireFrame header;
    header.type = MessageType::REQUEST;
    header.dest = 500;
    header.origin = Origin(0, 600); // A client of a hub of this domain.
    peer.send(header, {});
    header.origin = Origin(7, 601);
    peer.send(header, {});
    auto const neighbour = next(*client);
    EXPECT_EQ(neighbour->source, 600u);
    EXPECT_EQ(neighbour->return_route, 600u);
    auto const stranger = next(*client);
    EXPECT_EQ(stranger->source, 601u);
    EXPECT_EQ(stranger->return_route, 7u);
}

TEST_F(HubLocalClients, AClientThatHasGoneIsSkipped) {
    Collected<Bytes> heard;
    hear(*client, "topic", heard);
    auto const other = node.hub.connect(501, identity("other"));
    Collected<Bytes> by_other;
    hear(*other, "topic", by_other);
    client.reset();
    peer.send(MessageType::EVENT, 500, bytes_of("for the dead"), "topic", 5);
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, bytes_of("for all"), "topic", 6);
    ASSERT_TRUE(by_other.wait_for(1, "the other client has it"));
    EXPECT_THAT(by_other.all(), ElementsAre(bytes_of("for all")));
    EXPECT_EQ(heard.size(), 0u);
}

TEST_F(HubLocalClients, ClientsOfTwoProcessesTalk) {
    HubNode far(bus, 300, "far");
    far.join();
    auto const server = far.hub.connect(600, identity("server"));
    server->serve(
        "echo", [](Bytes const& payload) { return payload; }, "");
    EXPECT_EQ(client->request_to(600, "echo", bytes_of("hello"), K_LONG), bytes_of("hello"));
    EXPECT_EQ(client->request_to(LocalClient::K_EVERYBODY, "echo", bytes_of("all"), K_LONG),
              bytes_of("all"));
    EXPECT_EQ(far.hub.request("nobody", {}, milliseconds(1)), std::nullopt);
}

TEST_F(HubLocalClients, ClientsOfOneProcessTalk) {
    auto const server = node.hub.connect(501, identity("server"));
    server->serve(
        "echo", [](Bytes const& payload) { return payload; }, "");
    EXPECT_EQ(client->request_to(501, "echo", bytes_of("hello"), K_LONG), bytes_of("hello"));
}

TEST_F(HubLocalClients, WhatAClientPublishesIsRetainedAndWhatItSendsIsNot) {
    client->publish("published", bytes_of("p"));
    client->send(9, "sent", bytes_of("s"));
    client->send(LocalClient::K_EVERYBODY, "sent to all", bytes_of("s"));
    EXPECT_THAT(node.hub.matching_retained_events("*"),
                ElementsAre(std::pair(std::string("published"), bytes_of("p"))));
    EXPECT_EQ(node.hub.discovered_devices().at(200).publications.front().name, "published");
}

TEST_F(HubLocalClients, ASubscriptionOfAClientShowsInTheHubsRecord) {
    client->subscribe(
        "wanted", [](std::string const&, Bytes const&, std::uint32_t) {}, "described");
    auto const own = node.hub.discovered_devices().at(200);
    ASSERT_EQ(own.subscriptions.size(), 1u);
    EXPECT_EQ(own.subscriptions[0].name, "wanted");
    EXPECT_EQ(own.subscriptions[0].description, "described");
    ASSERT_EQ(own.hosted_modules.size(), 1u);
    EXPECT_EQ(own.hosted_modules[0].address, 500u);
}

TEST_F(HubLocalClients, AHandlerThatThrowsWarnsThroughTheHub) {
    client->subscribe("topic", [](std::string const&, Bytes const&, std::uint32_t) {
        throw std::runtime_error("bad luck");
    });
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, {}, "topic", 5);
    ASSERT_TRUE(node.warnings.wait_for(1, "the warning has come"));
    EXPECT_EQ(node.warnings.all().front(),
              "[bus] EVENT handler for 'topic' threw on this payload (malformed/unexpected?): bad "
              "luck");
}

struct LocalClientClaims : testing::Test {
    /// Whoever answers that it hosts a client.
    void host(RawNode& raw, std::uint32_t address) {
        raw.on_frame = [&raw, address](WireFrame const& frame) {
            if (frame.type == MessageType::DISCOVERY_REQUEST) {
                proto::bus::TopicsAndRoles content;
                content.modules.push_back({address, "hosted", {}});
                raw.announce("raw", content);
            }
        };
        raw.join();
    }
    static std::string in_use(std::uint32_t address, int probe) {
        return "[bus] WARNING: local-client address " + std::to_string(address) +
               " already in use on this bus (probe " + std::to_string(probe) +
               "/8) - retrying with an alternate address";
    }

    LoopbackBus bus;
};

TEST_F(LocalClientClaims, AFreeAddressIsUsedUnchanged) {
    HubNode node(bus, 200);
    node.join();
    EXPECT_EQ(node.hub.resolve_local_client_address(500, 0, "label"), 500u);
    EXPECT_EQ(node.hub.connect_resolved(501, identity(), 0)->address(), 501u);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST_F(LocalClientClaims, AFreeAddressIsAskedForTwice) {
    RawNode listener(bus, 9);
    listener.join();
    HubNode node(bus, 200);
    node.join();
    node.hub.resolve_local_client_address(500, 0, "label");
    EXPECT_TRUE(listener.wait_for(MessageType::DISCOVERY_REQUEST, 3, "the questions have come"));
}

TEST_F(LocalClientClaims, TheHubsOwnAddressAndThoseOfItsClientsAreTaken) {
    HubNode node(bus, 200);
    node.join();
    std::uint32_t const alternate = derive_alternate_address(1, 7, "label");
    EXPECT_EQ(node.hub.resolve_local_client_address(200, 7, "label"), alternate);
    auto const first = node.hub.connect(500, identity());
    EXPECT_EQ(node.hub.resolve_local_client_address(500, 7, "label"), alternate);
    EXPECT_THAT(node.warnings.all(), ElementsAre(in_use(200, 1), in_use(500, 1)));
}

TEST_F(LocalClientClaims, TwoServicesOfOneLabelAreSeparated) {
    HubNode node(bus, 200);
    node.join();
    auto const first = node.hub.connect_resolved(500, identity("same"), 7);
    auto const second = node.hub.connect_resolved(500, identity("same"), 7);
    auto const third = node.hub.connect_resolved(500, identity("same"), 7);
    EXPECT_EQ(first->address(), 500u);
    EXPECT_EQ(second->address(), derive_alternate_address(1, 7, "same"));
    EXPECT_NE(third->address(), second->address());
    EXPECT_NE(third->address(), first->address());
}

TEST_F(LocalClientClaims, AnAddressThatAnotherNodeHostsIsTaken) {
    RawNode raw(bus, 9);
    host(raw, 500);
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    auto const client = node.hub.connect_resolved(500, identity(), 0);
    EXPECT_NE(client->address(), 500u);
    EXPECT_THAT(node.warnings.all(), ElementsAre(in_use(500, 1)));
}

TEST_F(LocalClientClaims, WhatAPeerSaidJustNowStillCountsWhileItKeepsSilent) {
    HubNode far(bus, 300, "far", claim_settings());
    far.join();
    auto const theirs = far.hub.connect_resolved(500, identity(), 0);
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    auto const first = node.hub.connect_resolved(501, identity("a"), 0); // Far answers, once.
    auto const second = node.hub.connect_resolved(500, identity("b"), 0);
    EXPECT_EQ(first->address(), 501u);
    EXPECT_NE(second->address(), 500u);
}

TEST_F(LocalClientClaims, AClaimInTheSameInstantSendsBothOn) {
    RawNode raw(bus, 9);
    raw.on_frame = [&raw](WireFrame const& frame) {
        auto const content = proto::bus::decode_topics_and_roles_after_identity(frame.data);
        if (frame.type == MessageType::DISCOVERY_RESPONSE && !content.modules.empty() &&
            content.modules.front().address == 500) {
            proto::bus::TopicsAndRoles own;
            own.modules.push_back({500, "hosted", {}});
            raw.announce("raw", own);
        }
    };
    raw.join();
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    auto const client = node.hub.connect_resolved(500, identity(), 0);
    EXPECT_NE(client->address(), 500u);
    EXPECT_THAT(node.warnings.all(),
                ElementsAre("[bus] WARNING: local-client address 500 was claimed by another device "
                            "at the same instant, right after announcing (probe 1/8) - retrying "
                            "with an alternate address"));
}

TEST_F(LocalClientClaims, AfterEightAttemptsTheClientIsMadeAllTheSame) {
    RawNode raw(bus, 9);
    raw.on_frame = [&raw](WireFrame const& frame) {
        if (frame.type != MessageType::DISCOVERY_RESPONSE || frame.source != 200) {
            return;
        }
        auto const content = proto::bus::decode_topics_and_roles_after_identity(frame.data);
        proto::bus::TopicsAndRoles own;
        own.modules = content.modules;
        if (!own.modules.empty()) {
            raw.announce("jealous", own);
        }
    };
    raw.join();
    Hub::Settings settings = test::hub_settings();
    settings.address_probe_window = milliseconds(60);
    settings.discovery_debounce = milliseconds(0);
    HubNode node(bus, 200, "node", settings);
    node.join();
    auto const client = node.hub.connect_resolved(500, identity(), 0);
    ASSERT_TRUE(client);
    auto const warnings = node.warnings.all();
    ASSERT_EQ(warnings.size(), 9u);
    EXPECT_THAT(warnings[7], HasSubstr("(probe 8/8)"));
    EXPECT_EQ(warnings[8],
              "[bus] WARNING: giving up after 8 probe attempts - committing local client to "
              "address " +
                  std::to_string(client->address()) +
                  " even though it still appears to be in use; two clients may now both answer to "
                  "the same address");
}

TEST_F(LocalClientClaims, ClientsOfManyProcessesStartedAtOnceEndWithAddressesOfTheirOwn) {
    std::vector<std::unique_ptr<HubNode>> nodes;
    for (std::uint32_t i = 0; i < 6; ++i) {
        nodes.push_back(std::make_unique<HubNode>(bus, 200 + i, "node", claim_settings()));
    }
    Collected<std::shared_ptr<LocalClient>> clients;
    std::vector<std::thread> starts;
    for (auto const& node : nodes) {
        starts.emplace_back([&node, &clients] {
            node->join();
            clients.add(node->hub.connect_resolved(500, identity(), 0));
        });
    }
    for (std::thread& start : starts) {
        start.join();
    }
    std::vector<std::uint32_t> addresses;
    for (auto const& client : clients.all()) {
        addresses.push_back(client->address());
    }
    std::sort(addresses.begin(), addresses.end());
    EXPECT_EQ(std::unique(addresses.begin(), addresses.end()), addresses.end());
}

TEST_F(LocalClientClaims, ServicesOfManyProcessesStartedAtOnceEndWithAddressesOfTheirOwn) {
    std::vector<std::unique_ptr<HubNode>> nodes;
    for (std::uint32_t i = 0; i < 4; ++i) {
        nodes.push_back(std::make_unique<HubNode>(bus, 200, "node", claim_settings()));
    }
    Collected<std::uint32_t> addresses;
    std::vector<std::thread> starts;
    for (auto const& node : nodes) {
        starts.emplace_back([&node, &addresses] {
            node->join();
            for (auto const address :
                 node->hub.resolve_local_client_addresses({{500, 7, "a"}, {501, 7, "b"}})) {
                addresses.add(address);
            }
        });
    }
    for (std::thread& start : starts) {
        start.join();
    }
    auto found = addresses.all();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(std::unique(found.begin(), found.end()), found.end());
}

TEST_F(LocalClientClaims, AnAddressThatSomebodyWantsAtTheSameTimeIsTaken) {
    RawNode raw(bus, 9);
    raw.on_frame = [&raw](WireFrame const& frame) {
        auto const content = proto::bus::decode_topics_and_roles_after_identity(frame.data);
        if (frame.type == MessageType::DISCOVERY_RESPONSE && !content.modules.empty() &&
            content.modules.front().address == 500) {
            proto::bus::TopicsAndRoles own;
            own.modules = content.modules;
            raw.announce("raw", own);
        }
    };
    raw.join();
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    EXPECT_EQ(node.hub.resolve_local_client_address(500, 7, "label"),
              derive_alternate_address(1, 7, "label"));
    EXPECT_THAT(node.warnings.all(), ElementsAre(in_use(500, 1)));
}

TEST_F(LocalClientClaims, AnAddressIsKeptForTheClientThatItWasFoundFor) {
    Hub::Settings talkative = claim_settings();
    talkative.discovery_debounce = milliseconds(0);
    HubNode far(bus, 300, "far", talkative);
    far.join();
    ASSERT_EQ(far.hub.resolve_local_client_address(500, 7, "label"), 500U);
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    EXPECT_NE(node.hub.resolve_local_client_address(500, 8, "label"), 500U);
    auto const client = far.hub.connect(500, identity("theirs"));
    node.hub.discover(300);
    EXPECT_TRUE(test::wait_until(
        [&] {
            auto const modules = node.hub.discovered_devices().at(300).hosted_modules;
            return modules.size() == 1 && modules[0].name == "theirs";
        },
        "the client is known by its name"));
}

TEST_F(HubLocalClients, SeveralAddressesAreFoundInTheTimeOfOneAndAreAllDifferent) {
    test::settle(peer, node.hub);
    std::size_t const before = peer.heard(MessageType::DISCOVERY_REQUEST).size();
    auto const addresses = node.hub.resolve_local_client_addresses(
        {{700, 1, "a"}, {701, 1, "b"}, {700, 1, "c"}, {500, 1, "d"}});
    ASSERT_EQ(addresses.size(), 4u);
    EXPECT_EQ(addresses[0], 700u);
    EXPECT_EQ(addresses[1], 701u);
    EXPECT_EQ(addresses[2], derive_alternate_address(1, 1, "c"));
    EXPECT_EQ(addresses[3], derive_alternate_address(1, 1, "d"));
    EXPECT_THAT(node.warnings.all(),
                ElementsAre(HasSubstr("local-client address 700 already in use on this bus (probe "
                                      "1/8)"),
                            HasSubstr("local-client address 500 already in use on this bus (probe "
                                      "1/8)")));
    test::settle(peer, node.hub); // One more question.
    // Two rounds: one for all, and one for the two that gave way.
    EXPECT_EQ(peer.heard(MessageType::DISCOVERY_REQUEST).size(), before + 4 + 1);
}

TEST_F(HubLocalClients, NoAddressesAreFoundForNobody) {
    EXPECT_THAT(node.hub.resolve_local_client_addresses({}), IsEmpty());
}

TEST_F(HubLocalClients, AnAddressIsPickedWithoutAskingAnybody) {
    test::settle(peer, node.hub);
    std::size_t const before = bus.sent_count();
    std::uint32_t const picked = node.hub.pick_local_client_address(7, "source");
    EXPECT_EQ(picked, derive_alternate_address(1, 7, "source"));
    EXPECT_EQ(node.hub.pick_local_client_address(7, "source"), picked);
    auto const holder = node.hub.connect(picked, identity());
    EXPECT_EQ(node.hub.pick_local_client_address(7, "source"),
              derive_alternate_address(2, 7, "source"));
    EXPECT_EQ(bus.sent_count(), before);
}

TEST_F(HubLocalClients, AnAddressThatSomebodyWasHeardToHaveIsNotPicked) {
    proto::bus::TopicsAndRoles content;
    content.modules.push_back({derive_alternate_address(1, 7, "source"), "its own", {}});
    peer.announce("peer", content);
    ASSERT_TRUE(test::wait_until([&] { return node.hub.discovered_devices().contains(9); },
                                 "the peer is heard"));
    EXPECT_EQ(node.hub.pick_local_client_address(7, "source"),
              derive_alternate_address(2, 7, "source"));
}

} // namespace
} // namespace tessaron::bus
