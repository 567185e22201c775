#include "app/StopSignals.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

TEST(StopSignals, ASignalBecomesACallOnAThreadOfItsOwn) {
    std::atomic<int> calls = 0;
    std::atomic<bool> other_thread = false;
    auto const here = std::this_thread::get_id();
    StopSignals signals([&] {
        other_thread = std::this_thread::get_id() != here;
        ++calls;
    });
    EXPECT_EQ(signals.last_signal(), 0);
    std::raise(SIGTERM);
    test::wait_until([&] { return calls > 0; }, "the callback was called");
    EXPECT_TRUE(other_thread);
    EXPECT_EQ(signals.last_signal(), SIGTERM);
}

TEST(StopSignals, EachOfTheThreeSignalsIsCaught) {
    for (int const signal_number : {SIGINT, SIGTERM, SIGHUP}) {
        std::atomic<bool> called = false;
        StopSignals signals([&] { called = true; });
        std::raise(signal_number);
        test::wait_until([&] { return called.load(); }, "the callback was called");
        EXPECT_EQ(signals.last_signal(), signal_number);
    }
}

TEST(StopSignals, WithoutASignalItEndsWithoutACall) {
    std::atomic<bool> called = false;
    {
        StopSignals signals([&] { called = true; });
    }
    EXPECT_FALSE(called);
}

TEST(StopSignals, ABlockedSignalIsLetThroughEvenIfItHasComeAlready) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    std::raise(SIGTERM);
    std::atomic<bool> called = false;
    StopSignals signals([&] { called = true; });
    test::wait_until([&] { return called.load(); }, "the callback was called");
    EXPECT_EQ(signals.last_signal(), SIGTERM);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(StopSignals, ASecondSignalDoesNotCutTheEndOfTheProcessShort) {
    {
        StopSignals signals([] {});
    }
    std::raise(SIGTERM);
    SUCCEED() << "the process lives on";
}

TEST(StopSignals, ASignalBetweenTwoOfThemIsForgotten) {
    {
        StopSignals signals([] {});
    }
    std::raise(SIGTERM);
    StopSignals const signals([] {});
    EXPECT_EQ(signals.last_signal(), 0);
}

} // namespace
} // namespace tessaron
