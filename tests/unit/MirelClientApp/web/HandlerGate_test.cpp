#include "MirelClientApp/web/HandlerGate.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <thread>

using mirelclient::HandlerGate;

TEST(HandlerGate, IsClosedAtFirst) {
    HandlerGate gate;
    EXPECT_FALSE(HandlerGate::Pass(gate).entered());
}

TEST(HandlerGate, LetsIntoAnOpenGateOnly) {
    HandlerGate gate;
    gate.open();
    EXPECT_TRUE(HandlerGate::Pass(gate).entered());
    gate.close();
    EXPECT_FALSE(HandlerGate::Pass(gate).entered());
    gate.open();
    EXPECT_TRUE(HandlerGate::Pass(gate).entered());
}

TEST(HandlerGate, ThoseThatWereRefusedAreNotWaitedFor) {
    HandlerGate gate;
    HandlerGate::Pass const refused(gate);
    gate.wait_until_empty();
    EXPECT_FALSE(refused.entered());
}

TEST(HandlerGate, WaitsForThoseInside) {
    HandlerGate gate;
    gate.open();
    std::optional<HandlerGate::Pass> pass(std::in_place, gate);
    gate.close();
    std::atomic<bool> leaving = false;
    std::thread handler([&] {
        leaving = true;
        pass.reset();
    });
    gate.wait_until_empty();
    EXPECT_TRUE(leaving);
    handler.join();
}

TEST(HandlerGate, WaitsForThoseInsideNoLongerThanAsked) {
    HandlerGate gate(true);
    std::optional<HandlerGate::Pass> pass(std::in_place, gate);
    EXPECT_FALSE(gate.wait_until_empty_for(std::chrono::milliseconds(10)));
    pass.reset();
    EXPECT_TRUE(gate.wait_until_empty_for(std::chrono::milliseconds(0)));
}
