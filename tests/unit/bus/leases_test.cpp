#include "bus/leases.hpp"

#include "bus/TopicRegistry.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::bus {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::steady_clock::time_point K_START{1h};

std::vector<std::pair<std::string, std::uint32_t>> holders(LeaseTable const& leases) {
    std::vector<std::pair<std::string, std::uint32_t>> found;
    for (auto const& [topic, lease] : leases) {
        found.emplace_back(topic, lease.address);
    }
    return found;
}

TEST(Leases, ASecondRequestRenewsTheLease) {
    LeaseTable leases;
    upsert_lease(leases, "a", 1, K_START);
    upsert_lease(leases, "a", 1, K_START + 5s);
    ASSERT_EQ(leases.size(), 1U);
    EXPECT_EQ(leases.begin()->second.renewed, K_START + 5s);
}

TEST(Leases, EachTopicAndAddressHasItsOwn) {
    LeaseTable leases;
    upsert_lease(leases, "a", 1, K_START);
    upsert_lease(leases, "a", 2, K_START);
    upsert_lease(leases, "b", 1, K_START);
    upsert_lease(leases, "a", 1, K_START + 1s);
    using Holder = std::pair<std::string, std::uint32_t>;
    EXPECT_THAT(holders(leases),
                testing::UnorderedElementsAre(Holder{"a", 1}, Holder{"a", 2}, Holder{"b", 1}));
}

TEST(Leases, EndForTheTopicsThatAPatternMatchesAndForOneAddress) {
    LeaseTable leases;
    for (std::string const topic : {"a.x", "a.y", "b.x"}) {
        upsert_lease(leases, topic, 1, K_START);
        upsert_lease(leases, topic, 2, K_START);
    }
    erase_leases(leases, "a.*", 1);
    using Holder = std::pair<std::string, std::uint32_t>;
    EXPECT_THAT(holders(leases), testing::UnorderedElementsAre(Holder{"a.x", 2}, Holder{"a.y", 2},
                                                               Holder{"b.x", 1}, Holder{"b.x", 2}));
}

TEST(Leases, ThereAreNoneForNamesThatNobodyKeeps) {
    LeaseTable leases;
    upsert_lease(leases, std::string(TopicRegistry::K_MAX_NAME_SIZE + 1, 'x'), 1, K_START);
    EXPECT_TRUE(leases.empty());
    upsert_lease(leases, std::string(TopicRegistry::K_MAX_NAME_SIZE, 'x'), 1, K_START);
    EXPECT_EQ(leases.size(), 1U);
}

TEST(Leases, AFullTableTakesNoNewOnesAndStillRenews) {
    LeaseTable leases;
    for (std::size_t i = 0; i < K_MAX_LEASES; ++i) {
        leases.emplace(std::to_string(i), LeaseEntry{1, K_START});
    }
    upsert_lease(leases, "one more", 1, K_START);
    EXPECT_EQ(leases.size(), K_MAX_LEASES);
    EXPECT_FALSE(leases.contains("one more"));
    upsert_lease(leases, "7", 1, K_START + 1s);
    EXPECT_EQ(leases.find("7")->second.renewed, K_START + 1s);
}

} // namespace
} // namespace tessaron::bus
