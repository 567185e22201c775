#include "mirelserver/ConnectionLimit.hpp"

#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <vector>

namespace mirelserver {
namespace {

TEST(ConnectionLimit, NoMoreTokensThanTheLimitAreGiven) {
    ConnectionLimit limit(2);
    auto first = limit.take();
    auto const second = limit.take();
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_FALSE(limit.take());
    first.reset();
    EXPECT_TRUE(limit.take());
}

TEST(ConnectionLimit, ATokenMayOutliveTheLimit) {
    std::optional<ConnectionLimit> limit(std::in_place, 1);
    auto const token = limit->take();
    limit.reset();
    EXPECT_TRUE(token);
}

TEST(ConnectionLimit, PlacesComeBackWhateverThreadGivesThem) {
    ConnectionLimit limit(4);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&limit] {
            for (int k = 0; k < 1000; ++k) {
                EXPECT_TRUE(limit.take());
            }
        });
    }
    threads.clear();
    std::vector<std::shared_ptr<void>> tokens{limit.take(), limit.take(), limit.take(),
                                              limit.take()};
    EXPECT_TRUE(tokens.back());
    EXPECT_FALSE(limit.take());
}

} // namespace
} // namespace mirelserver
