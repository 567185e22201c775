#include "bus/TopicRegistry.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace tessaron::bus {
namespace {

using Bytes = TopicRegistry::Bytes;

TEST(TopicRegistry, TheFirstNameForAnIdStays) {
    TopicRegistry topics;
    EXPECT_EQ(topics.resolve_name(5), "");
    topics.register_name(5, "first");
    topics.register_name(5, "second");
    EXPECT_EQ(topics.resolve_name(5), "first");
    EXPECT_EQ(topics.resolve_name(6), "");
}

TEST(TopicRegistry, NamesThatAreEmptyOrPatternsAreIgnored) {
    TopicRegistry topics;
    topics.register_name(5, "");
    topics.register_name(5, "a.*");
    topics.register_name(5, "a.b");
    EXPECT_EQ(topics.resolve_name(5), "a.b");
}

TEST(TopicRegistry, NamesThatAreTooLongAreIgnored) {
    TopicRegistry topics;
    topics.register_name(5, std::string(TopicRegistry::K_MAX_NAME_SIZE + 1, 'x'));
    EXPECT_EQ(topics.resolve_name(5), "");
    topics.register_name(5, std::string(TopicRegistry::K_MAX_NAME_SIZE, 'x'));
    EXPECT_EQ(topics.resolve_name(5).size(), TopicRegistry::K_MAX_NAME_SIZE);
}

TEST(TopicRegistry, RetainsTheLastPayload) {
    TopicRegistry topics;
    EXPECT_FALSE(topics.retained("a"));
    topics.retain("a", {1});
    topics.retain("a", {2, 3});
    EXPECT_EQ(topics.retained("a"), (Bytes{2, 3}));
    topics.retain("a", {});
    EXPECT_EQ(topics.retained("a"), Bytes{});
}

TEST(TopicRegistry, APayloadThatIsTooLargeTakesTheEarlierOneAway) {
    TopicRegistry topics;
    topics.retain("a", Bytes(16384, 1));
    EXPECT_EQ(topics.retained("a"), Bytes(16384, 1));
    topics.retain("a", Bytes(16385, 2));
    EXPECT_FALSE(topics.retained("a"));
}

TEST(TopicRegistry, FindsWhatIsRetainedByPattern) {
    TopicRegistry topics;
    topics.retain("a.x", {1});
    topics.retain("a.y", {2});
    topics.retain("b.x", {3});
    using Found = std::pair<std::string, Bytes>;
    EXPECT_THAT(topics.matching_retained("a.*"),
                testing::UnorderedElementsAre(Found{"a.x", {1}}, Found{"a.y", {2}}));
    EXPECT_THAT(topics.matching_retained("b.x"), testing::ElementsAre(Found{"b.x", {3}}));
    EXPECT_THAT(topics.matching_retained("c*"), testing::IsEmpty());
}

} // namespace
} // namespace tessaron::bus
