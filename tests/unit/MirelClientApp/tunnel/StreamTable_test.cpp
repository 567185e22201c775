#include "MirelClientApp/tunnel/StreamTable.hpp"

#include <gtest/gtest.h>
#include <memory>

namespace mirelclient {
namespace {

struct FakeStream : TunnelStream {
    void deliver(std::string_view /*payload*/, int /*tunnel*/) override {}
    void pump(TunnelConnection& /*connection*/, std::uint32_t /*stream*/) override {}
    void close() noexcept override { closed = true; }

    bool closed = false;
};

struct StreamTableTest : testing::Test {
    StreamTable table;
    std::shared_ptr<FakeStream> const first = std::make_shared<FakeStream>();
    std::shared_ptr<FakeStream> const second = std::make_shared<FakeStream>();
};

TEST_F(StreamTableTest, AStreamIsFoundByItsId) {
    ASSERT_TRUE(table.add(7, first));
    EXPECT_EQ(table.find(7), first);
    EXPECT_EQ(table.find(8), nullptr);
}

TEST_F(StreamTableTest, AClosedStreamIsForgottenAndCanBeForgottenAgain) {
    ASSERT_TRUE(table.add(7, first));
    table.close(7);
    table.close(7);
    EXPECT_TRUE(first->closed);
    EXPECT_EQ(table.find(7), nullptr);
    EXPECT_TRUE(table.forget(7, first));
}

TEST_F(StreamTableTest, AStreamThatEndsByItselfIsForgotten) {
    ASSERT_TRUE(table.add(7, first));
    EXPECT_TRUE(table.forget(7, first));
    EXPECT_EQ(table.find(7), nullptr);
    EXPECT_FALSE(first->closed);
}

TEST_F(StreamTableTest, ANewerStreamOfTheSameIdClosesTheOldOneAndStays) {
    ASSERT_TRUE(table.add(7, first));
    ASSERT_TRUE(table.add(7, second));
    EXPECT_TRUE(first->closed);
    EXPECT_FALSE(table.forget(7, first));
    EXPECT_EQ(table.find(7), second);
    EXPECT_FALSE(second->closed);
}

TEST_F(StreamTableTest, AClosedTableLetsNobodyIn) {
    ASSERT_TRUE(table.add(7, first));
    table.close_all();
    EXPECT_TRUE(first->closed);
    EXPECT_FALSE(table.add(8, second));
    EXPECT_TRUE(second->closed);
    EXPECT_EQ(table.find(8), nullptr);
}

} // namespace
} // namespace mirelclient
