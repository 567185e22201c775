#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace tessaron::bus {
namespace {

using proto::bus::TopicDescription;
using proto::bus::TopicKind;
using proto::bus::TopicsAndRoles;
using test::Bytes;
using test::bytes_of;
using test::Collected;
using test::HubNode;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::RawNode;
using test::topic_hash;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TopicDescription topic(std::string const& name, std::string const& description,
                       TopicKind kind = TopicKind::EVENT) {
    return {name, description, kind, {}, false};
}

WireFrame question(std::uint32_t dest = Hub::BROADCAST_ADDRESS) {
    WireFrame header;
    header.type = MessageType::DISCOVERY_REQUEST;
    header.dest = dest;
    return header;
}

struct HubDiscovery : testing::Test {
    void SetUp() override {
        peer.join();
        node.join();
        test::settle(peer, node.hub);
        announcements = peer.heard(MessageType::DISCOVERY_RESPONSE).size();
    }

    /// Behind the announcements: a slow node answers its own question with a second one.
    std::vector<WireFrame> responses(std::size_t count) {
        peer.wait_for(MessageType::DISCOVERY_RESPONSE, announcements + count,
                      "the responses have come");
        auto all = peer.heard(MessageType::DISCOVERY_RESPONSE);
        all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(announcements));
        return all;
    }
    bool wait_for_device(std::uint32_t address) {
        return test::wait_until([&] { return node.hub.discovered_devices().contains(address); },
                                "the device is known");
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode node{bus, 200, "node"};
    std::size_t announcements = 0;
};

TEST_F(HubDiscovery, OneSourceIsAnsweredOnceInFiveSeconds) {
    RawNode other(bus, 10);
    other.join();
    peer.send(question(), {});
    peer.send(question(200), {});
    other.send(question(), {}); // A marker: its answer comes after those of the others.
    ASSERT_TRUE(other.wait_for(MessageType::DISCOVERY_RESPONSE, 2, "both have been answered"));
    auto const answers = responses(2);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].dest, 9u);
    EXPECT_EQ(answers[1].dest, 10u);
}

TEST_F(HubDiscovery, AfterTheDebounceItIsAnsweredAgain) {
    EXPECT_EQ(Hub::Settings().discovery_debounce, std::chrono::seconds(5));
    Hub::Settings settings = test::hub_settings();
    settings.discovery_debounce = std::chrono::milliseconds(1);
    HubNode eager(bus, 300, "eager", settings);
    eager.join();
    test::wait_until(
        [&] {
            peer.send(question(300), {});
            auto const all = peer.heard(MessageType::DISCOVERY_RESPONSE);
            return std::count_if(all.begin(), all.end(), [](WireFrame const& frame) {
                       return frame.source == 300 && frame.dest == 9;
                   }) >= 2;
        },
        "it has answered twice");
}

TEST_F(HubDiscovery, WhoHasNoAddressYetIsAlwaysAnsweredByBroadcast) {
    RawNode newcomer(bus, 0xFFFF);
    newcomer.join();
    newcomer.send(question(), {});
    newcomer.send(question(), {});
    auto const answers = responses(2);
    EXPECT_EQ(answers[0].dest, Hub::BROADCAST_ADDRESS);
    EXPECT_EQ(answers[1].dest, Hub::BROADCAST_ADDRESS);
}

TEST_F(HubDiscovery, TheResponseTellsAllThatTheNodeOffers) {
    node.hub.advertise("offered", "an event", TopicKind::EVENT, {{"unit", "km", true}}, true);
    node.hub.serve(
        "served", [](Bytes const&) { return Bytes(); }, "a request");
    node.hub.subscribe(
        "wanted.*", [](Envelope const&) {}, "whatever");
    node.hub.add_role("gateway");
    auto const client = node.hub.connect(500, proto::bus::make_identity("client", "b", 1));
    client->advertise("of the client", "");
    node.hub.add_route(
        700, 701, [](std::uint32_t, WireFrame const&) {}, true);
    peer.send(question(), {});
    Bytes const payload = responses(1)[0].data;
    EXPECT_EQ(proto::bus::decode_identity(payload), node.hub.identity_snapshot());
    auto content = proto::bus::decode_topics_and_roles_after_identity(payload);
    EXPECT_THAT(
        content.publications,
        ElementsAre(
            topic("of the client", ""),
            TopicDescription{"offered", "an event", TopicKind::EVENT, {{"unit", "km", true}}, true},
            topic("served", "a request", TopicKind::REQUEST)));
    EXPECT_THAT(content.subscriptions, ElementsAre(topic("wanted.*", "whatever")));
    EXPECT_THAT(content.roles, ElementsAre("gateway"));
    EXPECT_THAT(content.modules,
                ElementsAre(proto::bus::HostedModuleInfo{500, "client", {"of the client"}}));
    std::sort(content.records.begin(), content.records.end(),
              [](auto const& a, auto const& b) { return a.address < b.address; });
    ASSERT_EQ(content.records.size(), 3u);
    EXPECT_THAT(content.records[0].name, testing::StartsWith("node#"));
    EXPECT_EQ(content.records[0].address, 0u);
    EXPECT_EQ(content.records[0].hops, 1);
    EXPECT_EQ(content.records[0].note, "own domain");
    EXPECT_EQ(content.records[1], (proto::bus::DiscoveryRecord{"", 700, 2, "forwarded"}));
    EXPECT_EQ(content.records[2], (proto::bus::DiscoveryRecord{"", 701, 2, "forwarded"}));
}

TEST_F(HubDiscovery, WhoeverIsHeardIsADevice) {
    TopicsAndRoles content;
    content.publications = {topic("p", "d")};
    content.subscriptions = {topic("s", "")};
    content.roles = {"r1", "r2"};
    content.modules = {{901, "m", {"t"}}};
    peer.announce("peer", content);
    ASSERT_TRUE(wait_for_device(9));
    auto const devices = node.hub.discovered_devices();
    EXPECT_EQ(devices.size(), 2u);
    DiscoveredDevice const device = devices.at(9);
    EXPECT_EQ(identity_field_to_string(device.identity.name, 50), "peer");
    EXPECT_EQ(device.publications, content.publications);
    EXPECT_EQ(device.subscriptions, content.subscriptions);
    EXPECT_EQ(device.roles, content.roles);
    EXPECT_EQ(device.hosted_modules, content.modules);
    EXPECT_TRUE(devices.contains(200));
}

TEST_F(HubDiscovery, AMinimalSenderIsADeviceAndAShorterOneNone) {
    peer.send(MessageType::DISCOVERY_RESPONSE, 200, Bytes(203), "", 0);
    RawNode minimal(bus, 10);
    minimal.join();
    minimal.send(MessageType::DISCOVERY_RESPONSE, 200, Bytes(204), "", 0);
    ASSERT_TRUE(wait_for_device(10));
    EXPECT_FALSE(node.hub.discovered_devices().contains(9));
}

TEST_F(HubDiscovery, TopicsOfADeviceAreKnownByName) {
    Collected<std::string> topics;
    node.hub.subscribe_pattern(
        "told.*",
        [topics](std::string const& name, Bytes const&, Origin const&) { topics.add(name); }, "");
    TopicsAndRoles content;
    content.publications = {topic("told.topic", "")};
    peer.announce("peer", content);
    peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, {}, "told.topic", 1);
    ASSERT_TRUE(topics.wait_for(1, "the event has come"));
    EXPECT_THAT(topics.all(), ElementsAre("told.topic"));
}

TEST_F(HubDiscovery, ALargeResponseIsPutTogether) {
    TopicsAndRoles content;
    for (int i = 0; i < 500; ++i) {
        content.publications.push_back(topic("topic." + std::to_string(i), "described"));
    }
    HubNode talker(bus, 300, "talker");
    for (auto const& publication : content.publications) {
        talker.hub.advertise(publication.name, publication.description, TopicKind::EVENT);
    }
    talker.join();
    ASSERT_TRUE(wait_for_device(300));
    EXPECT_EQ(node.hub.discovered_devices().at(300).publications.size(), 500u);
}

TEST_F(HubDiscovery, SubscriptionsWithoutAPublisherAreToldAll) {
    node.hub.subscribe(
        "b.known", [](Envelope const&) {}, "");
    node.hub.subscribe(
        "a.lost", [](Envelope const&) {}, "first");
    node.hub.subscribe(
        "c.*", [](Envelope const&) {}, "second");
    TopicsAndRoles content;
    content.publications = {topic("b.known", ""), topic("c.request", "", TopicKind::REQUEST)};
    peer.announce("peer", content);
    ASSERT_TRUE(wait_for_device(9));
    try {
        node.hub.validate_subscriptions();
        FAIL() << "nothing was thrown";
    } catch (UnmatchedSubscriptionError const& error) {
        EXPECT_STREQ(error.what(),
                     "Hub::ValidateSubscriptions: 2 subscription(s) have no known publisher:\n"
                     "  - a.lost (first)\n  - c.* (second)\n");
    }
}

TEST_F(HubDiscovery, ASubscriptionIsValidOnceItsPublisherHasAnswered) {
    node.hub.subscribe(
        "topic", [](Envelope const&) {}, "");
    EXPECT_THROW(node.hub.validate_subscriptions(), UnmatchedSubscriptionError);
    peer.send(MessageType::SUBSCRIBE_RESPONSE, 200,
              proto::bus::encode_identity_and_topic({}, "topic"), "", 0);
    peer.announce("marker");
    ASSERT_TRUE(wait_for_device(9));
    EXPECT_NO_THROW(node.hub.validate_subscriptions());
}

TEST_F(HubDiscovery, TheReportListsEveryDevice) {
    EXPECT_EQ(node.hub.build_report(), "Hub report: 1 device known\n"
                                       "- [200] node (binary=hub-test)\n"
                                       "    publications: (none)\n"
                                       "    subscriptions: (none)\n");
    node.hub.subscribe(
        "lost", [](Envelope const&) {}, "never");
    node.hub.subscribe(
        "told", [](Envelope const&) {}, "");
    TopicsAndRoles content;
    content.publications = {topic("plain", ""), topic("told", "well")};
    content.roles = {"r1", "r2"};
    WireFrame header;
    header.type = MessageType::DISCOVERY_RESPONSE;
    header.dest = Hub::BROADCAST_ADDRESS;
    peer.send(header, proto::bus::encode_identity_topics_and_roles(
                          proto::bus::make_identity("peer", "", 1, "group"), content));
    ASSERT_TRUE(wait_for_device(9));
    EXPECT_EQ(node.hub.build_report(), "Hub report: 2 devices known\n"
                                       "- [9] peer [group=group]\n"
                                       "    roles: r1, r2\n"
                                       "    publications:\n"
                                       "      plain\n"
                                       "      told - well\n"
                                       "    subscriptions: (none)\n"
                                       "- [200] node (binary=hub-test)\n"
                                       "    publications: (none)\n"
                                       "    subscriptions:\n"
                                       "      lost - never  ⚠ no known publisher\n"
                                       "      told\n");
}

TEST_F(HubDiscovery, TheTablesTellTheSame) {
    node.hub.advertise("offered", "an event", TopicKind::EVENT);
    node.hub.subscribe(
        "lost", [](Envelope const&) {}, "never");
    node.hub.add_role("gateway");
    std::ostringstream out;
    node.hub.print_table_report(out);
    std::string const text = out.str();
    EXPECT_THAT(text, testing::StartsWith("Hub report: 1 device known\n\n"));
    for (char const* const part :
         {"ADDRESS", "NAME", "BINARY", "GROUP", "ROLES", "gateway", "\n[200] node:\n", "KIND",
          "TOPIC", "DESCRIPTION", "pub", "offered", "an event", "sub", "lost ⚠ no known publisher",
          "never"}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    EXPECT_THAT(text, testing::Not(HasSubstr("\033"))); // No terminal, no colour.
}

} // namespace
} // namespace tessaron::bus
