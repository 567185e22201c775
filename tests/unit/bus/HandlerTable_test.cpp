#include "bus/HandlerTable.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using proto::bus::topic_hash;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST(HandlerTable, FindsPlainTopicsByTheirIdAlone) {
    HandlerTable<int> table;
    table.add("a.b", 1);
    table.add("a.b", 2);
    table.add("a.c", 3);
    EXPECT_THAT(table.find(topic_hash("a.b"), ""), UnorderedElementsAre(1, 2));
    EXPECT_THAT(table.find(0, "a.b"), ElementsAre());
    EXPECT_TRUE(table.matches(topic_hash("a.c"), ""));
    EXPECT_FALSE(table.matches(topic_hash("a.d"), "a.d"));
}

TEST(HandlerTable, FindsPatternsByTheNameAlone) {
    HandlerTable<int> table;
    table.add("a.*", 1);
    table.add("*", 2);
    EXPECT_THAT(table.find(topic_hash("a.b"), "a.b"), UnorderedElementsAre(1, 2));
    EXPECT_THAT(table.find(0, "b"), ElementsAre(2));
    EXPECT_THAT(table.find(topic_hash("a.b"), ""), ElementsAre());
    EXPECT_TRUE(table.matches(0, "b"));
    EXPECT_FALSE(table.matches(topic_hash("a.b"), ""));
}

TEST(HandlerTable, PutsTheExactTopicFirst) {
    HandlerTable<int> table;
    table.add("*", 1);
    table.add("a", 2);
    EXPECT_THAT(table.find(topic_hash("a"), "a"), ElementsAre(2, 1));
}

} // namespace
} // namespace tessaron::bus
