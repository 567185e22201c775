#include "app/CrashTest.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace tessaron {
namespace {

TEST(CrashTestDeathTest, TheTargetIsAbortedWhereverItWasArmed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            CrashTest test;
            test.set_target(::pthread_self());
            static pthread_t const main_thread = ::pthread_self();
            std::signal(SIGABRT, [](int) {
                ::_exit(::pthread_equal(::pthread_self(), main_thread) ? 7 : 8);
            });
            std::thread([&test] { test.arm(); }).join();
            for (;;) {
                ::pause();
            }
        },
        testing::ExitedWithCode(7), "");
}

TEST(CrashTest, IsArmedOnceItWasAskedForAndOverWithItsObject) {
    {
        CrashTest test;
        EXPECT_FALSE(test.armed());
        test.arm();
        EXPECT_TRUE(test.armed());
    }
    // A later one, whose target is this thread too, is the only one that comes.
    static std::atomic<int> s_crashes{0};
    auto const former = std::signal(SIGABRT, [](int) { ++s_crashes; });
    CrashTest later;
    later.arm();
    EXPECT_TRUE(test::wait_until([] { return s_crashes != 0; }, "the crash comes"));
    std::signal(SIGABRT, former);
    EXPECT_EQ(s_crashes, 1);
}

} // namespace
} // namespace tessaron
