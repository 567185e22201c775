#include "bus/address_derivation.hpp"
#include "tests/support/bus_nodes.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace tessaron::bus {
namespace {

using test::claim_settings;
using test::Collected;
using test::HubNode;
using test::LoopbackBus;
using test::MessageType;
using test::RawNode;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using std::chrono::milliseconds;

proto::bus::NodeIdentity identity(std::string const& name = "client") {
    return proto::bus::make_identity(name, "hub-test", 1);
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
    HubNode far(bus, 300, "far", claim_settings());
    far.join();
    ASSERT_EQ(far.hub.resolve_local_client_address(500, 7, "label"), 500U);
    HubNode node(bus, 200, "node", claim_settings());
    node.join();
    EXPECT_NE(node.hub.resolve_local_client_address(500, 8, "label"), 500U);
    auto const client = far.hub.connect(500, identity("theirs")); // Everybody is told.
    EXPECT_TRUE(test::wait_until(
        [&] {
            auto const modules = node.hub.discovered_devices().at(300).hosted_modules;
            return modules.size() == 1 && modules[0].name == "theirs";
        },
        "the client is known by its name"));
}

/// A node that has joined, with a client at 500.
struct JoinedClaims : LocalClientClaims {
    JoinedClaims() {
        peer.join();
        node.join();
        client = node.hub.connect(500, identity());
        test::settle(peer, node.hub);
    }

    RawNode peer{bus, 9};
    HubNode node{bus, 200, "node"};
    std::shared_ptr<LocalClient> client;
};

TEST_F(JoinedClaims, SeveralAddressesAreFoundInTheTimeOfOneAndAreAllDifferent) {
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

TEST_F(JoinedClaims, NoAddressesAreFoundForNobody) {
    EXPECT_THAT(node.hub.resolve_local_client_addresses({}), IsEmpty());
}

TEST_F(JoinedClaims, AnAddressIsPickedWithoutAskingAnybody) {
    std::size_t const before = bus.sent_count();
    std::uint32_t const picked = node.hub.pick_local_client_address(7, "source");
    EXPECT_EQ(picked, derive_alternate_address(1, 7, "source"));
    EXPECT_EQ(node.hub.pick_local_client_address(7, "source"), picked);
    auto const holder = node.hub.connect(picked, identity());
    EXPECT_EQ(node.hub.pick_local_client_address(7, "source"),
              derive_alternate_address(2, 7, "source"));
    EXPECT_EQ(bus.sent_count(), before);
}

TEST_F(JoinedClaims, AnAddressThatSomebodyWasHeardToHaveIsNotPicked) {
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
