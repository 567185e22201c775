#include "libraries/interfaces/multicast/SendPace.hpp"

#include <gtest/gtest.h>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace std::chrono_literals;
using proto::interface::SendPace;
using Time = SendPace::Clock::time_point;

constexpr std::size_t K_MILLISECONDS_WORTH = SendPace::K_BYTES_PER_MICROSECOND * 1000;
constexpr Time K_START{1h};

TEST(SendPace, WhatComesNowAndThenNeedNotWait) {
    SendPace pace;
    for (int i = 0; i < 100; ++i) {
        Time const now = K_START + i * 1ms;
        EXPECT_LE(pace.due_after(SendPace::K_BYTES_PER_MICROSECOND, now), now);
    }
}

TEST(SendPace, WhatIsSentInOneGoIsHeldBackBeyondTheAllowance) {
    SendPace pace;
    EXPECT_EQ(pace.due_after(K_MILLISECONDS_WORTH, K_START), K_START + 1ms - SendPace::K_ALLOWANCE);
    EXPECT_EQ(pace.due_after(K_MILLISECONDS_WORTH, K_START), K_START + 2ms - SendPace::K_ALLOWANCE);
}

TEST(SendPace, ATimeWithoutSendingIsNotSavedUp) {
    SendPace pace;
    std::ignore = pace.due_after(K_MILLISECONDS_WORTH, K_START);
    Time const later = K_START + 1s;
    EXPECT_EQ(pace.due_after(K_MILLISECONDS_WORTH, later), later + 1ms - SendPace::K_ALLOWANCE);
}

TEST(SendPace, AWaitEndsWhenMoreMayBeSent) {
    SendPace pace;
    auto const begin = SendPace::Clock::now();
    for (int i = 0; i < 10; ++i) {
        pace.wait_after(K_MILLISECONDS_WORTH);
    }
    EXPECT_GE(SendPace::Clock::now() - begin, 10ms - SendPace::K_ALLOWANCE);
}

TEST(SendPace, ThoseWhoSendAtOnceShareIt) {
    SendPace pace;
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&pace] {
            for (int k = 0; k < 1000; ++k) {
                std::ignore = pace.due_after(K_MILLISECONDS_WORTH, K_START);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(pace.due_after(0, K_START), K_START + 4000ms - SendPace::K_ALLOWANCE);
}

} // namespace
