#include "app/ReassertGuard.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

std::atomic<int> s_calls{0};

void count_call() noexcept {
    ++s_calls;
}

TEST(ReassertGuard, CallsTheFunctionAgainAndAgainUntilItsEnd) {
    s_calls = 0;
    {
        ReassertGuard const guard(&count_call);
        test::wait_until([] { return s_calls >= 3; }, "the function was called three times");
    }
    int const calls = s_calls;
    ReassertGuard const other(&count_call); // a marker: it is called, the former guard is not
    test::wait_until([calls] { return s_calls > calls; }, "the other guard's call");
    EXPECT_EQ(s_calls, calls + 1);
}

TEST(ReassertGuard, EndsAtOnceHoweverShortItLived) {
    for (int round = 0; round < 100; ++round) {
        ReassertGuard const guard(&count_call);
    }
}

} // namespace
} // namespace tessaron
