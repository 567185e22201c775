#include "bus/network_map_join.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using proto::bus::HubSummary;
using proto::bus::ModuleSummary;
using proto::bus::NetworkDomain;
using proto::bus::TopicDescription;
using proto::bus::TopicKind;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TopicDescription topic(std::string const& name, std::string const& description = "") {
    return {name, description, TopicKind::EVENT, {}, false};
}

TEST(NetworkMapJoin, NoAnswersMakeAnEmptyDomain) {
    EXPECT_EQ(network_map_join({}), NetworkDomain());
}

TEST(NetworkMapJoin, OneAnswerIsItselfInOrder) {
    NetworkDomain const answer{0, {{9, "b", 0, {}}, {2, "a", 0, {{8, "n", {}}, {7, "m", {}}}}}, {}};
    NetworkDomain const ordered{
        0, {{2, "a", 0, {{7, "m", {}}, {8, "n", {}}}}, {9, "b", 0, {}}}, {}};
    EXPECT_EQ(network_map_join({answer}), ordered);
}

TEST(NetworkMapJoin, EveryHubThatAnybodyNamesIsThereOnce) {
    auto const joined = network_map_join({{0, {{1, "a", 11, {}}, {2, "b", 0, {}}}, {}},
                                          {0, {{2, "b", 22, {}}, {3, "c", 0, {}}}, {}}});
    EXPECT_THAT(joined.hubs, ElementsAre(HubSummary{1, "a", 11, {}}, HubSummary{2, "b", 22, {}},
                                         HubSummary{3, "c", 0, {}}));
}

TEST(NetworkMapJoin, AHubHasTheModulesAndTopicsOfAllAnswers) {
    auto const joined = network_map_join(
        {{0, {{1, "", 0, {{5, "", {topic("t", "told")}}}}}, {}},
         {0, {{1, "a", 0, {{6, "n", {}}, {5, "m", {topic("t"), topic("s")}}}}}, {}}});
    EXPECT_THAT(joined.hubs,
                ElementsAre(HubSummary{
                    1, "a", 0, {{5, "m", {topic("s"), topic("t", "told")}}, {6, "n", {}}}}));
}

TEST(NetworkMapJoin, AnswersBeginWithOneBusWhateverEachCallsIt) {
    auto const joined =
        network_map_join({{0, {{300, "tool", 0, {}}}, {}}, {1, {{50000, "gw", 0, {}}}, {}}});
    EXPECT_EQ(joined.address, 1u);
    EXPECT_THAT(joined.hubs, SizeIs(2));
    EXPECT_THAT(joined.children, IsEmpty());
}

TEST(NetworkMapJoin, TheSameDomainBehindAGatewayIsThereOnce) {
    NetworkDomain const first{1, {{50000, "gw", 7, {}}, {300, "tool", 0, {}}}, {}};
    NetworkDomain const second{1, {{301, "tool2", 0, {}}, {50000, "gw", 7, {}}}, {}};
    auto const joined = network_map_join({{0, {}, {first}}, {0, {}, {second}}});
    ASSERT_THAT(joined.children, SizeIs(1));
    EXPECT_THAT(joined.children[0].hubs,
                ElementsAre(HubSummary{300, "tool", 0, {}}, HubSummary{301, "tool2", 0, {}},
                            HubSummary{50000, "gw", 7, {}}));
}

TEST(NetworkMapJoin, DomainsBehindTwoGatewaysStayApart) {
    NetworkDomain const first{1, {{50000, "gw", 7, {}}}, {}};
    NetworkDomain const second{1, {{50000, "gw", 8, {}}}, {}};
    NetworkDomain const third{2, {{50000, "gw", 7, {}}}, {}};
    auto const joined = network_map_join({{0, {}, {first, second}}, {0, {}, {third, first}}});
    EXPECT_THAT(joined.children, ElementsAre(first, second, third));
}

TEST(NetworkMapJoin, ReachesDomainsWithinDomains) {
    NetworkDomain const deep{0, {{9, "deep", 0, {}}}, {}};
    NetworkDomain const other{0, {{8, "other", 0, {}}}, {}};
    NetworkDomain const first{1, {{50000, "gw", 7, {}}}, {deep}};
    NetworkDomain const second{1, {{50000, "gw", 7, {}}}, {deep, other}};
    auto const joined = network_map_join({{0, {}, {first}}, {0, {}, {second}}});
    ASSERT_THAT(joined.children, SizeIs(1));
    EXPECT_THAT(joined.children[0].children, ElementsAre(deep, other));
}

TEST(NetworkMapJoin, ADomainOfWhichNothingIsKnownIsLeftOut) {
    EXPECT_THAT(network_map_join({{0, {}, {{1, {}, {}}}}}).children, IsEmpty());
}

TEST(NetworkMapJoin, MoreDomainsThanCouldBeAreLeftOut) {
    NetworkDomain answer;
    for (std::uint32_t i = 0; i < 1'000; ++i) {
        answer.children.push_back({1, {{i, "made up", 0, {}}}, {}});
    }
    EXPECT_THAT(network_map_join({answer}).children, SizeIs(K_MAX_JOINED_CHILDREN));
}

} // namespace
} // namespace tessaron::bus
