#include "bus/ReplayedHandler.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using testing::ElementsAre;

TEST(ReplayedHandler, GetsTheRetainedBeforeTheNew) {
    std::vector<std::string> heard;
    ReplayedHandler* self = nullptr;
    ReplayedHandler handler([&](std::string const& topic, auto const&, std::uint32_t source) {
        heard.push_back(topic + " from " + std::to_string(source));
        if (topic == "first") {
            self->handle("meanwhile", {}, 5);
        }
    });
    self = &handler;
    handler.handle("early", {}, 4);
    EXPECT_THAT(heard, ElementsAre());
    handler.replay({{"first", {}}, {"second", {}}});
    handler.handle("live", {}, 6);
    EXPECT_THAT(heard, ElementsAre("first from 0", "second from 0", "early from 4",
                                   "meanwhile from 5", "live from 6"));
}

TEST(ReplayedHandler, DropsTheOldestOfTooManyThatWait) {
    std::vector<std::uint32_t> heard;
    ReplayedHandler handler(
        [&](auto const&, auto const&, std::uint32_t source) { heard.push_back(source); });
    for (std::uint32_t i = 1; i <= ReplayedHandler::K_MAX_WAITING + 1; ++i) {
        handler.handle("topic", {}, i);
    }
    handler.replay({});
    ASSERT_EQ(heard.size(), ReplayedHandler::K_MAX_WAITING);
    EXPECT_EQ(heard.front(), 2U);
    EXPECT_EQ(heard.back(), ReplayedHandler::K_MAX_WAITING + 1);
}

} // namespace
} // namespace tessaron::bus
