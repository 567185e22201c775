#include "bus/LocalClientRegistry.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

namespace tessaron::bus {
namespace {

/// A pointer of the client's type to something that lives as one would: the registry looks at
/// nothing but its life.
std::shared_ptr<LocalClient> living_client() {
    auto const life = std::make_shared<int>();
    return {life, reinterpret_cast<LocalClient*>(life.get())};
}

TEST(LocalClientRegistry, GivesTheClientsThatAreAlive) {
    LocalClientRegistry clients;
    auto const one = living_client();
    auto two = living_client();
    clients.register_client(1, one);
    clients.register_client(2, two);
    EXPECT_EQ(clients.live_snapshot().size(), 2U);
    two.reset();
    auto const live = clients.live_snapshot();
    ASSERT_EQ(live.size(), 1U);
    EXPECT_EQ(live[0].first, 1U);
    EXPECT_EQ(live[0].second, one);
}

TEST(LocalClientRegistry, TheAddressOfADeadClientIsStillTaken) {
    LocalClientRegistry clients;
    auto client = living_client();
    EXPECT_FALSE(clients.has(1));
    clients.register_client(1, client);
    EXPECT_TRUE(clients.has(1));
    client.reset();
    EXPECT_TRUE(clients.has(1));
}

TEST(LocalClientRegistry, ALaterClientReplacesAnEarlierOne) {
    LocalClientRegistry clients;
    auto const earlier = living_client();
    auto const later = living_client();
    clients.register_client(1, earlier);
    clients.register_client(1, later);
    auto const live = clients.live_snapshot();
    ASSERT_EQ(live.size(), 1U);
    EXPECT_EQ(live[0].second, later);
}

TEST(LocalClientRegistry, AnAddressIsWantedUntilItHasAClientOrIsGivenUp) {
    LocalClientRegistry clients;
    clients.want(1);
    clients.want(2);
    EXPECT_FALSE(clients.has(1));
    EXPECT_THAT(clients.wanted(), testing::ElementsAre(1U, 2U));
    auto const client = living_client();
    clients.register_client(1, client);
    EXPECT_THAT(clients.wanted(), testing::ElementsAre(2U));
    clients.give_up(2);
    EXPECT_THAT(clients.wanted(), testing::IsEmpty());
}

TEST(LocalClientRegistry, ASnapshotKeepsItsClientsAlive) {
    LocalClientRegistry clients;
    auto client = living_client();
    std::weak_ptr<LocalClient> const watched = client;
    clients.register_client(1, client);
    {
        auto const live = clients.live_snapshot();
        client.reset();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

} // namespace
} // namespace tessaron::bus
