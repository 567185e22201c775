#include "app/CrashRestartBudget.hpp"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>

namespace tessaron {
namespace {

constexpr char const* K_COUNT = "CONSOLE_APP_CRASH_RESTART_COUNT";
constexpr char const* K_WINDOW = "CONSOLE_APP_CRASH_RESTART_WINDOW_START";

class CrashRestartBudgetTest : public testing::Test {
protected:
    CrashRestartBudgetTest() { forget(); }
    ~CrashRestartBudgetTest() override { forget(); }

    static void forget() {
        ::unsetenv(K_COUNT);
        ::unsetenv(K_WINDOW);
    }

    /// What the next image would find.
    static std::map<std::string, std::string> handed_on(CrashRestartBudget& budget) {
        std::map<std::string, std::string> result;
        for (char* const* entry = budget.next_environment_signal_safe(); *entry != nullptr;
             ++entry) {
            std::string const text = *entry;
            EXPECT_TRUE(
                result.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1))
                    .second)
                << text << " twice";
        }
        return result;
    }

    /// The life of a program that crashes at each of the given times.
    static CrashRestartBudget::Decision crash_in_next_image(CrashRestartBudget& budget,
                                                            std::int64_t now) {
        auto const environment = handed_on(budget);
        forget();
        for (char const* name : {K_COUNT, K_WINDOW}) {
            if (environment.contains(name)) {
                ::setenv(name, environment.at(name).c_str(), 1);
            }
        }
        CrashRestartBudget next("console_app");
        return next.count_crash_signal_safe(now);
    }
};

TEST(CrashRestartVariables, AreNamedAfterTheShell) {
    EXPECT_EQ(app_shell_detail::make_env_var_name("console_app", "_CRASH_RESTART_COUNT"), K_COUNT);
    EXPECT_EQ(app_shell_detail::make_env_var_name("my-app2", "_X"), "MY_APP2_X");
}

TEST_F(CrashRestartBudgetTest, AllowsFiveRestartsAndRefusesTheSixth) {
    CrashRestartBudget budget("console_app");
    for (std::uint64_t number = 1; number <= 5; ++number) {
        auto const decision =
            budget.count_crash_signal_safe(1'000'000 + 10 * static_cast<int>(number));
        EXPECT_TRUE(decision.restart);
        EXPECT_EQ(decision.crash_number, number);
    }
    for (int repeated = 0; repeated < 2; ++repeated) {
        auto const decision = budget.count_crash_signal_safe(1'000'060);
        EXPECT_FALSE(decision.restart);
        EXPECT_EQ(decision.crash_number, 6U);
    }
}

TEST_F(CrashRestartBudgetTest, TheCountGoesOnInTheNextImage) {
    CrashRestartBudget budget("console_app");
    budget.count_crash_signal_safe(1'000'000);
    auto const decision = crash_in_next_image(budget, 1'000'060);
    EXPECT_TRUE(decision.restart);
    EXPECT_EQ(decision.crash_number, 2U);
}

TEST_F(CrashRestartBudgetTest, TwoCrashes61SecondsApartAreTwoFirstOnes) {
    CrashRestartBudget budget("console_app");
    budget.count_crash_signal_safe(1'000'000);
    EXPECT_EQ(crash_in_next_image(budget, 1'000'061).crash_number, 1U);
}

TEST_F(CrashRestartBudgetTest, TheWindowBeginsWithItsFirstCrash) {
    CrashRestartBudget budget("console_app");
    budget.count_crash_signal_safe(1'000'000);
    budget.count_crash_signal_safe(1'000'050);
    EXPECT_EQ(budget.count_crash_signal_safe(1'000'061).crash_number, 1U);
}

TEST_F(CrashRestartBudgetTest, ReadsWhatTheFormerImageLeftAndTakesItOutOfTheEnvironment) {
    ::setenv(K_COUNT, "5", 1);
    ::setenv(K_WINDOW, "1000000", 1);
    CrashRestartBudget budget("console_app");
    EXPECT_EQ(std::getenv(K_COUNT), nullptr);
    EXPECT_EQ(std::getenv(K_WINDOW), nullptr);
    EXPECT_FALSE(budget.count_crash_signal_safe(1'000'060).restart);
}

TEST_F(CrashRestartBudgetTest, AVariableThatCannotBeReadCountsAsAbsent) {
    for (char const* count : {"", "x", "-1", "5x", "99999999999999999999999"}) {
        ::setenv(K_COUNT, count, 1);
        ::setenv(K_WINDOW, "1000000", 1);
        CrashRestartBudget budget("console_app");
        EXPECT_EQ(budget.count_crash_signal_safe(1'000'000).crash_number, 1U) << count;
    }
    ::setenv(K_COUNT, "5", 1);
    ::unsetenv(K_WINDOW);
    CrashRestartBudget budget("console_app");
    EXPECT_EQ(budget.count_crash_signal_safe(1'000'000).crash_number, 1U);
}

TEST_F(CrashRestartBudgetTest, AClockThatWasSetBackLeavesTheWindowOpen) {
    ::setenv(K_COUNT, "5", 1);
    ::setenv(K_WINDOW, "2000000", 1);
    CrashRestartBudget budget("console_app");
    EXPECT_FALSE(budget.count_crash_signal_safe(1'000'000).restart);
}

TEST_F(CrashRestartBudgetTest, BeforeTheFirstCrashNothingIsHandedOn) {
    CrashRestartBudget budget("console_app");
    auto const environment = handed_on(budget);
    EXPECT_FALSE(environment.contains(K_COUNT));
    EXPECT_FALSE(environment.contains(K_WINDOW));
}

TEST_F(CrashRestartBudgetTest, TheRestOfTheEnvironmentIsHandedOnAsItIsNow) {
    CrashRestartBudget budget("console_app");
    ::setenv("SET_AFTER_CONSTRUCTION", "yes=1", 1);
    budget.count_crash_signal_safe(1'000'000);
    auto const environment = handed_on(budget);
    EXPECT_EQ(environment.at("SET_AFTER_CONSTRUCTION"), "yes=1");
    EXPECT_EQ(environment.at("PATH"), std::getenv("PATH"));
    EXPECT_EQ(environment.at(K_COUNT), "1");
    EXPECT_EQ(environment.at(K_WINDOW), "1000000");
    ::unsetenv("SET_AFTER_CONSTRUCTION");
}

TEST_F(CrashRestartBudgetTest, MoreVariablesThanThereIsRoomForDoNoHarm) {
    CrashRestartBudget budget("console_app");
    for (int number = 0; number < 1000; ++number) {
        ::setenv(("FILLER_" + std::to_string(number)).c_str(), "x", 1);
    }
    budget.count_crash_signal_safe(1'000'000);
    auto const environment = handed_on(budget);
    EXPECT_EQ(environment.at(K_COUNT), "1");
    EXPECT_EQ(environment.at("PATH"), std::getenv("PATH"));
    for (int number = 0; number < 1000; ++number) {
        ::unsetenv(("FILLER_" + std::to_string(number)).c_str());
    }
}

} // namespace
} // namespace tessaron
