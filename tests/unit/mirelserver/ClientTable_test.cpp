#include "mirelserver/ClientTable.hpp"

#include <gtest/gtest.h>

namespace mirelserver {
namespace {

using std::chrono::seconds;

class FakeTunnel : public IStreamOpener {
public:
    std::shared_ptr<Channel> open(std::string) override { return nullptr; }
    void close() override { ++closed; }

    int closed = 0;
};

class ClientTableTest : public testing::Test {
protected:
    ClientTable table_;
    ClientTable::Clock::time_point const now_{seconds{1000}};
};

TEST_F(ClientTableTest, TellsHowLongAgoAMachineWasHeard) {
    EXPECT_FALSE(table_.find("m", now_));
    ASSERT_TRUE(table_.heard("m", "http://a", now_));
    ASSERT_TRUE(table_.heard("m", "http://b", now_ + seconds{5}));
    auto const found = table_.find("m", now_ + seconds{12});
    ASSERT_TRUE(found);
    EXPECT_EQ(found->address, "http://b");
    EXPECT_EQ(found->age, seconds{7});
    EXPECT_EQ(found->tunnel, nullptr);
}

TEST_F(ClientTableTest, ANewerTunnelClosesTheEarlierWhichCannotTakeItsPlaceAway) {
    auto const first = std::make_shared<FakeTunnel>();
    auto const second = std::make_shared<FakeTunnel>();
    ASSERT_TRUE(table_.attach("m", first, now_));
    ASSERT_TRUE(table_.attach("m", second, now_));
    EXPECT_EQ(first->closed, 1);
    table_.detach("m", first.get(), now_);
    EXPECT_EQ(table_.find("m", now_)->tunnel, second);
    table_.detach("m", second.get(), now_);
    EXPECT_EQ(table_.find("m", now_)->tunnel, nullptr);
    EXPECT_EQ(second->closed, 0);
}

TEST_F(ClientTableTest, ListsByName) {
    ASSERT_TRUE(table_.heard("b", "", now_));
    ASSERT_TRUE(table_.attach("a", std::make_shared<FakeTunnel>(), now_));
    auto const listed = table_.list(now_);
    ASSERT_EQ(listed.size(), 2U);
    EXPECT_EQ(listed[0].name, "a");
    EXPECT_EQ(listed[1].name, "b");
}

TEST_F(ClientTableTest, ANameIsOneSegmentOfAPathAndPlainText) {
    for (std::string const name : {"a", "my machine", "\xc3\xa4", "...", "heartbeat"}) {
        EXPECT_TRUE(is_client_name(name)) << name;
    }
    EXPECT_TRUE(is_client_name(std::string(ClientTable::K_MAX_NAME_SIZE, 'n')));
    EXPECT_FALSE(is_client_name(std::string(ClientTable::K_MAX_NAME_SIZE + 1, 'n')));
    for (std::string const name : {"", ".", "..", "a/b", "a\n", "\x7f", "\xc3", "\xff", "\x80"}) {
        EXPECT_FALSE(is_client_name(name)) << name;
        EXPECT_FALSE(table_.heard(name, "", now_));
        EXPECT_FALSE(table_.attach(name, std::make_shared<FakeTunnel>(), now_));
    }
    EXPECT_FALSE(table_.heard("m", std::string(ClientTable::K_MAX_ADDRESS_SIZE + 1, 'a'), now_));
}

TEST_F(ClientTableTest, TheOneSilentForLongestWithoutATunnelMakesRoom) {
    ASSERT_TRUE(table_.attach("tunnel", std::make_shared<FakeTunnel>(), now_ - seconds{9}));
    ASSERT_TRUE(table_.heard("silent", "", now_ - seconds{5}));
    for (std::size_t i = 2; i < ClientTable::K_MAX_CLIENTS; ++i) {
        ASSERT_TRUE(table_.heard("m" + std::to_string(i), "", now_));
    }
    ASSERT_TRUE(table_.heard("new", "", now_));
    EXPECT_EQ(table_.list(now_).size(), ClientTable::K_MAX_CLIENTS);
    EXPECT_FALSE(table_.find("silent", now_));
    EXPECT_TRUE(table_.find("tunnel", now_));
    EXPECT_TRUE(table_.find("new", now_));
}

TEST_F(ClientTableTest, TunnelsKeepTheirPlaces) {
    auto const tunnel = std::make_shared<FakeTunnel>();
    for (std::size_t i = 0; i < ClientTable::K_MAX_CLIENTS; ++i) {
        ASSERT_TRUE(table_.attach("m" + std::to_string(i), tunnel, now_));
    }
    EXPECT_FALSE(table_.heard("new", "", now_));
    EXPECT_TRUE(table_.heard("m0", "", now_));
}

} // namespace
} // namespace mirelserver
