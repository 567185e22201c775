#include "bus/CallGate.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <vector>

namespace tessaron::bus {
namespace {

TEST(CallGate, LetsCallsInUntilItIsClosed) {
    CallGate gate;
    EXPECT_TRUE(CallGate::Pass(gate));
    EXPECT_TRUE(CallGate::Pass(gate));
    gate.close();
    EXPECT_FALSE(CallGate::Pass(gate));
}

TEST(CallGate, CloseWaitsForTheCallsOfOtherThreads) {
    CallGate gate;
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    std::thread caller([&] {
        CallGate::Pass const pass(gate);
        entered.set_value();
        leave.get_future().wait();
        left = true;
    });
    entered.get_future().wait();
    std::thread closer([&] {
        gate.close();
        EXPECT_TRUE(left);
    });
    test::wait_until([&] { return !CallGate::Pass(gate); }, "the gate is closed");
    leave.set_value();
    closer.join();
    caller.join();
}

TEST(CallGate, TheOneWhoClosesMayBeWithinAndMoreThanOnce) {
    CallGate gate;
    CallGate::Pass const outer(gate);
    CallGate::Pass const inner(gate);
    ASSERT_TRUE(outer && inner);
    gate.close();
    EXPECT_FALSE(CallGate::Pass(gate));
}

TEST(CallGate, MayGoAsSoonAsItIsClosed) {
    for (int round = 0; round < 200; ++round) {
        std::optional<CallGate> gate(std::in_place);
        std::atomic<int> entered{0};
        std::vector<std::thread> callers;
        for (int i = 0; i < 3; ++i) {
            callers.emplace_back([&] {
                CallGate::Pass const pass(*gate);
                ++entered;
            });
        }
        // All have come before the end, in whatever state they are found.
        test::wait_until([&] { return entered == 3; }, "all callers have entered");
        gate->close();
        gate.reset();
        for (auto& caller : callers) {
            caller.join();
        }
    }
}

} // namespace
} // namespace tessaron::bus
