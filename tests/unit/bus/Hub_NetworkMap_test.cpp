#include "NetworkMapTest.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using proto::bus::DiscoverNetworkRequest;
using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;
using test::addresses;
using test::ask;
using test::Bytes;
using test::HubNode;
using test::K_COLLECT;
using test::K_LONG;
using test::LoopbackBus;
using test::MessageType;
using test::RawNode;
using test::wait_until_known;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

proto::bus::TopicsAndRoles gateway_content() {
    proto::bus::TopicsAndRoles content;
    content.roles = {Hub::K_GATEWAY_ROLE};
    return content;
}

/// A gateway in name: counts how often it is asked, and answers if it is told to.
struct ScriptedGateway {
    ScriptedGateway(LoopbackBus& bus, std::uint32_t address, std::optional<NetworkDomain> answer)
        : node(bus, address) {
        node.on_frame = [this, address, answer](WireFrame const& frame) {
            if (frame.type != MessageType::REQUEST || frame.dest != address) {
                return;
            }
            questions.add(DiscoverNetworkRequest::parse(frame.data));
            if (answer) {
                node.send(MessageType::RESPONSE, frame.source,
                          proto::bus::encode_network_domain(*answer), "", frame.msg_id);
            }
        };
        node.join();
        node.announce("scripted", gateway_content());
    }

    test::Collected<DiscoverNetworkRequest> questions;
    RawNode node;
};

struct OneBus : testing::Test {
    void SetUp() override {
        node.join();
        other.join();
        asker.join();
        wait_until_known(node.hub, 201);
        wait_until_known(node.hub, 202);
    }

    LoopbackBus bus;
    HubNode node{bus, 200, "node"};
    HubNode other{bus, 201, "other"};
    HubNode asker{bus, 202, "asker"};
};

TEST_F(OneBus, EveryNodeAnswersWithTheWholeBusAsItKnowsIt) {
    auto const map = ask(asker.hub, 200, {});
    ASSERT_TRUE(map);
    EXPECT_EQ(map->address, 0u);
    EXPECT_THAT(addresses(*map), ElementsAre(200, 201, 202));
    EXPECT_EQ(map->hubs[0].name, "node");
    EXPECT_EQ(map->hubs[1].name, "other");
    EXPECT_THAT(map->children, IsEmpty());
}

TEST_F(OneBus, AHubStandsInTheMapWithItsModulesAndTheirTopics) {
    auto const client = other.hub.connect(500, proto::bus::make_identity("module", "b", 1));
    client->serve(
        "ask me", [](Bytes const&) { return Bytes(); }, "what for");
    RawNode newcomer(bus, 0xFFFF); // Whoever has no address yet is told by broadcast.
    newcomer.join();
    newcomer.send(MessageType::DISCOVERY_REQUEST, Hub::BROADCAST_ADDRESS, {}, "", 1);
    test::wait_until([&] { return !node.hub.discovered_devices().at(201).hosted_modules.empty(); },
                     "the module is known");
    auto const map = ask(asker.hub, 201, {});
    ASSERT_TRUE(map);
    ASSERT_THAT(map->hubs[1].modules, SizeIs(1));
    ModuleSummary const& module = map->hubs[1].modules[0];
    EXPECT_EQ(module.address, 500u);
    EXPECT_EQ(module.name, "module");
    ASSERT_THAT(module.topics, SizeIs(1));
    EXPECT_EQ(module.topics[0].name, "ask me");
    EXPECT_EQ(module.topics[0].description, "what for");
    EXPECT_EQ(module.topics[0].kind, proto::bus::TopicKind::REQUEST);
}

TEST_F(OneBus, EachTellsOnlyItsOwnTopicsSinceEverybodyIsAsked) {
    auto const client = other.hub.connect(500, proto::bus::make_identity("module", "b", 1));
    client->serve(
        "ask me", [](Bytes const&) { return Bytes(); }, "what for");
    RawNode newcomer(bus, 0xFFFF);
    newcomer.join();
    newcomer.send(MessageType::DISCOVERY_REQUEST, Hub::BROADCAST_ADDRESS, {}, "", 1);
    test::wait_until([&] { return !node.hub.discovered_devices().at(201).hosted_modules.empty(); },
                     "the module is known");
    auto const map = ask(asker.hub, 200, {});
    ASSERT_TRUE(map);
    EXPECT_THAT(map->hubs[1].modules, ElementsAre(ModuleSummary{500, "module", {}}));
    auto const whole = node.hub.discover_network_impl(0, {}, K_COLLECT, false);
    EXPECT_THAT(whole.hubs[1].modules.at(0).topics, SizeIs(1)) << "but knows them";
}

TEST(NetworkMap, WhoDoesNotAnswerAnyMoreIsLeftOutAndWhoDoesIsNot) {
    LoopbackBus bus;
    Hub::Settings settings = test::hub_settings();
    settings.presence_patience = std::chrono::milliseconds(10);
    HubNode node{bus, 200, "node", settings};
    node.join();
    RawNode mute(bus, 300);
    mute.join();
    mute.announce("mute");
    RawNode polite(bus, 301);
    polite.on_frame = [&](WireFrame const& frame) {
        if (frame.type == MessageType::DISCOVERY_REQUEST && frame.dest == 301) {
            polite.announce("polite", {}, frame.source);
        }
    };
    polite.join();
    polite.announce("polite");
    wait_until_known(node.hub, 300);
    wait_until_known(node.hub, 301);
    std::vector<std::uint32_t> const present{200, 301};
    EXPECT_TRUE(test::wait_until(
        [&] {
            return addresses(node.hub.discover_network_impl(0, {}, K_COLLECT, false)) == present;
        },
        "the mute one is left out"));
    auto asked = mute.heard(MessageType::DISCOVERY_REQUEST);
    std::erase_if(asked, [](WireFrame const& frame) { return frame.dest != 300; });
    EXPECT_THAT(asked, SizeIs(PresenceWatch::K_QUESTIONS));
    EXPECT_TRUE(node.hub.discovered_devices().contains(300)) << "who was heard is known";
}

TEST_F(OneBus, AHubHasOneNumberWhoeverTellsOfIt) {
    auto const own = ask(asker.hub, 200, {});
    auto const hearsay = ask(asker.hub, 201, {});
    ASSERT_TRUE(own && hearsay);
    EXPECT_EQ(own->hubs[0].address, 200u);
    EXPECT_EQ(own->hubs[0].value, hearsay->hubs[0].value);
    EXPECT_GT(own->hubs[0].value, 0xFFFFu);
    EXPECT_NE(own->hubs[0].value, own->hubs[1].value);
}

TEST_F(OneBus, TheAskerJoinsAllAnswers) {
    RawNode shy(bus, 300); // Known to one node alone.
    shy.join();
    shy.announce("shy", {}, 200);
    wait_until_known(node.hub, 300);
    NetworkDomain map;
    test::wait_until(
        [&] {
            map = other.hub.discover_network(0, K_COLLECT);
            return map.hubs.size() == 4;
        },
        "all answers have come in one time");
    EXPECT_THAT(addresses(map), ElementsAre(200, 201, 202, 300));
}

TEST_F(OneBus, AQuestionThatIsNoneIsNotAnswered) {
    EXPECT_THAT(asker.hub.request_to_and_collect(200, test::K_MAP_TOPIC, {1}, K_COLLECT),
                IsEmpty());
    test::wait_until([&] { return node.warnings.size() == 1; }, "it is warned of");
    EXPECT_THAT(node.warnings.all().at(0), testing::HasSubstr("DiscoverNetworkRequest: truncated"));
}

TEST_F(OneBus, AMapThatDoesNotFitIntoAMessageLosesItsTopicsFirst) {
    RawNode crowd(bus, 1000);
    crowd.join();
    for (std::uint32_t address = 1000; address < 1400; ++address) {
        proto::bus::TopicsAndRoles content;
        content.modules = {{address + 5000, "m", {std::string(3'000, 't')}}};
        crowd.wire.set_source(address);
        crowd.announce("crowd", content);
        bus.wait_until_delivered(); // A worker's queue is short.
    }
    wait_until_known(node.hub, 1399);
    auto const map = ask(asker.hub, 200, {});
    ASSERT_TRUE(map);
    EXPECT_THAT(map->hubs, SizeIs(403));
    ASSERT_THAT(map->hubs.back().modules, SizeIs(1));
    EXPECT_THAT(map->hubs.back().modules[0].topics, IsEmpty());
}

TEST_F(OneBus, WithoutHopsLeftNoGatewayIsAsked) {
    ScriptedGateway const gateway(bus, 400, NetworkDomain());
    wait_until_known(node.hub, 400);
    ASSERT_TRUE(ask(asker.hub, 200, {0, {}}));
    ASSERT_TRUE(ask(asker.hub, 200, {1, {}})); // A marker: this question is passed on.
    ASSERT_THAT(gateway.questions.all(), SizeIs(1));
    EXPECT_EQ(gateway.questions.all()[0].max_depth, 0u);
}

TEST_F(OneBus, EachGatewayIsToldOfTheOthersSoThatNoneAsksThem) {
    ScriptedGateway const first(bus, 400, NetworkDomain());
    ScriptedGateway const second(bus, 401, NetworkDomain());
    wait_until_known(node.hub, 400);
    wait_until_known(node.hub, 401);
    ASSERT_TRUE(ask(asker.hub, 200, {3, {77}}));
    ASSERT_THAT(first.questions.all(), SizeIs(1));
    auto const question = first.questions.all()[0];
    EXPECT_EQ(question.max_depth, 2u);
    std::uint32_t const own = node.hub.discovered_devices().at(200).network_number;
    EXPECT_THAT(question.visited, UnorderedElementsAre(77, own, 400, 401));
    EXPECT_EQ(second.questions.all(), first.questions.all());
}

TEST_F(OneBus, AGatewayThatIsVisitedIsNotAsked) {
    ScriptedGateway const first(bus, 400, NetworkDomain());
    ScriptedGateway const second(bus, 401, NetworkDomain());
    wait_until_known(node.hub, 400);
    wait_until_known(node.hub, 401);
    ASSERT_TRUE(ask(asker.hub, 200, {3, {400}}));
    EXPECT_THAT(second.questions.all(), SizeIs(1));
    EXPECT_THAT(first.questions.all(), IsEmpty());
}

TEST_F(OneBus, WhatAGatewayTellsIsPartOfTheAnswer) {
    NetworkDomain const far{1, {{50000, "far", 7, {}}}, {}};
    ScriptedGateway const gateway(bus, 400, NetworkDomain{0, {{999, "unheard", 0, {}}}, {far}});
    wait_until_known(node.hub, 400);
    auto const map = ask(asker.hub, 200, {1, {}});
    ASSERT_TRUE(map);
    EXPECT_THAT(addresses(*map), ElementsAre(200, 201, 202, 400, 999));
    EXPECT_THAT(map->children, ElementsAre(far));
}

TEST_F(OneBus, TheSameQuestionIsPassedOnOnceWhileItsAnswerIsFresh) {
    ScriptedGateway const gateway(bus, 400, NetworkDomain{0, {}, {{1, {{9, "far", 0, {}}}, {}}}});
    wait_until_known(node.hub, 400);
    EXPECT_THAT(ask(asker.hub, 200, {1, {}})->children, SizeIs(1));
    EXPECT_THAT(ask(asker.hub, 200, {1, {}})->children, SizeIs(1));
    EXPECT_THAT(gateway.questions.all(), SizeIs(1));
    EXPECT_THAT(ask(asker.hub, 200, {1, {55}})->children, SizeIs(1));
    EXPECT_THAT(gateway.questions.all(), SizeIs(2));
}

TEST_F(OneBus, AnAnswerThatIsTooOldIsAskedForAnew) {
    Hub::Settings settings = test::hub_settings();
    settings.network_map_cache_ttl = std::chrono::milliseconds(0);
    HubNode forgetful(bus, 203, "forgetful", settings);
    forgetful.join();
    ScriptedGateway const gateway(bus, 400, NetworkDomain());
    wait_until_known(forgetful.hub, 400);
    ASSERT_TRUE(ask(asker.hub, 203, {1, {}}));
    ASSERT_TRUE(ask(asker.hub, 203, {1, {}}));
    EXPECT_THAT(gateway.questions.all(), SizeIs(2));
}

TEST_F(OneBus, AGatewayThatIsSilentIsLeftOutAndAskedAgain) {
    ScriptedGateway const silent(bus, 400, std::nullopt);
    wait_until_known(node.hub, 400);
    Bytes const question = DiscoverNetworkRequest{1, {}}.build();
    for (std::size_t round = 1; round <= 2; ++round) {
        auto const reply = asker.hub.request(test::K_MAP_TOPIC, question, K_LONG);
        ASSERT_TRUE(reply);
        auto const map = proto::bus::decode_network_domain(*reply);
        ASSERT_TRUE(map);
        EXPECT_THAT(addresses(*map), Contains(400));
    }
    test::wait_until([&] { return silent.questions.size() >= 2; }, "it is asked again");
}

TEST_F(OneBus, TheAskersTimeEndsTheWaitForASilentGateway) {
    ScriptedGateway const silent(bus, 400, std::nullopt);
    wait_until_known(asker.hub, 400);
    auto const map = asker.hub.discover_network(2, std::chrono::milliseconds(50));
    EXPECT_THAT(addresses(map), ElementsAre(200, 201, 202, 400));
}

TEST(NetworkNumber, IsNoAddressAndTheNamesOwn) {
    EXPECT_EQ(network_number("node#1"), network_number("node#1"));
    EXPECT_NE(network_number("node#1"), network_number("node#2"));
    EXPECT_GT(network_number(""), 0xFFFFu);
}

} // namespace
} // namespace tessaron::bus
