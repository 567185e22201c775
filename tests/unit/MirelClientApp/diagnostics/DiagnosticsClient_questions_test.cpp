#include "tests/unit/MirelClientApp/diagnostics/DiagnosticsTest.hpp"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <thread>

// What is asked of those who are found.

namespace mirelclient::test {
namespace {

using tessaron::AppControlClient;
using tessaron::test::answer;

constexpr std::chrono::hours K_FOR_EVER{1};

using DiagnosticsQuestions = DiagnosticsTest;

TEST_F(DiagnosticsQuestions, EachGoesToTheModuleOfItsName) {
    Application weather(bus, 300, "weather");
    Collected<proto::bus::Bytes> to_node;
    answer(weather.node.hub, "info", log_at("/node"), to_node);
    answer(*weather.logger, "info", log_at("/logger"));
    answer(*weather.control, "crash_incident",
           tessaron::CrashIncidentReply{true, "", {"from control"}});
    answer(*weather.config, "set", tessaron::config::ConfigSetReply{false, "from config"});
    start_and_find({"weather"});
    wait_until([&] { return diagnostics->hub_owns_address("weather", 1300); }, "it has modules");

    EXPECT_EQ(log_path_of("weather"), "/logger");
    auto const incident = diagnostics->with_package(
        "weather", [](AppControlClient& client) { return client.crash_incident(1, 2, K_LONG); });
    ASSERT_TRUE(incident);
    EXPECT_THAT(incident->lines, testing::ElementsAre("from control"));
    auto const set = diagnostics->with_package(
        "weather", [](AppControlClient& client) { return client.config_set("a", "b", K_LONG); });
    ASSERT_TRUE(set);
    EXPECT_EQ(set->error, "from config");
    EXPECT_EQ(to_node.size(), 0U);
}

TEST_F(DiagnosticsQuestions, ThoseForAModuleThatIsNotThereGoToTheNodeItself) {
    HubNode clock(bus, 400, "clock");
    auto const config = clock.hub.connect(2400, proto::bus::make_identity("config", "clock", 1));
    answer(clock.hub, "info", log_at("/node"));
    answer(clock.hub, "session_history", tessaron::SessionHistoryReply());
    answer(clock.hub, "list", tessaron::config::ConfigListReply());
    answer(*config, "list",
           tessaron::config::ConfigListReply{true, "", {{"n", "int", "", "1", "1", true}}});
    clock.join();
    start_and_find({"clock"});
    wait_until([&] { return diagnostics->hub_owns_address("clock", 2400); }, "it has its module");

    EXPECT_EQ(log_path_of("clock"), "/node");
    EXPECT_TRUE(diagnostics->with_package(
        "clock", [](AppControlClient& client) { return client.session_history(0, K_LONG); }));
    auto const list = diagnostics->with_package(
        "clock", [](AppControlClient& client) { return client.config_list(K_LONG); });
    ASSERT_TRUE(list);
    EXPECT_EQ(list->fields.size(), 1U);
}

TEST_F(DiagnosticsQuestions, NobodyIsAskedForAnApplicationThatIsNotKnown) {
    RawNode raw(bus, 9);
    raw.join();
    Application const clock(bus, 400, "clock");
    start_and_find({"clock"});
    bool is_called = false;
    auto const reply = diagnostics->with_package("weather", [&](AppControlClient& client) {
        is_called = true;
        return client.log_info(K_LONG);
    });
    EXPECT_EQ(reply, std::nullopt);
    EXPECT_FALSE(is_called);
    tessaron::test::settle(raw, own.hub);
    EXPECT_EQ(requests(raw, "info"), 0U);
}

TEST_F(DiagnosticsQuestions, AnApplicationThatDoesNotAnswerIsKnownAllTheSame) {
    Application const clock(bus, 400, "clock"); // Tells of the other.
    RawNode raw(bus, 300);
    raw.join();
    raw.announce("weather");
    start_and_find({"weather"});
    auto const history = diagnostics->with_package("weather", [](AppControlClient& client) {
        return client.session_history(0, std::chrono::milliseconds(20));
    });
    EXPECT_EQ(history, std::nullopt);
    EXPECT_TRUE(diagnostics->is_discovered("weather"));
    tessaron::test::settle(raw, own.hub);
    EXPECT_EQ(requests(raw, "session_history"), 1U);
}

TEST_F(DiagnosticsQuestions, ThoseOfSeveralThreadsFollowEachOther) {
    Application const clock(bus, 400, "clock");
    start_and_find({"clock"});
    std::atomic<int> within{0};
    std::atomic<int> most{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                std::ignore = diagnostics->with_package("clock", [&](AppControlClient&) {
                    most = std::max<int>(most, ++within);
                    std::this_thread::yield();
                    --within;
                    return std::optional(1);
                });
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(most, 1);
}

TEST_F(DiagnosticsQuestions, LookingSomebodyUpDoesNotWaitForOne) {
    Application const clock(bus, 400, "clock");
    start_and_find({"clock"});
    auto const found = diagnostics->with_package("clock", [&](AppControlClient&) {
        auto look_up = std::async(std::launch::async, [&] {
            return diagnostics->is_discovered("clock") &&
                   diagnostics->hub_owns_address("clock", 400) &&
                   diagnostics->hub_location("clock");
        });
        return std::optional(look_up.get());
    });
    EXPECT_EQ(found, true);
}

TEST_F(DiagnosticsQuestions, EachThreadGetsTheAnswerOfItsOwnApplication) {
    Application weather(bus, 300, "weather");
    Application clock(bus, 400, "clock");
    answer(*weather.logger, "info", log_at("/weather"));
    answer(*clock.logger, "info", log_at("/clock"));
    start_and_find({"weather", "clock"});
    wait_until(
        [&] {
            return diagnostics->hub_owns_address("weather", 1300) &&
                   diagnostics->hub_owns_address("clock", 1400);
        },
        "both have their modules");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, name = std::string(i % 2 == 0 ? "weather" : "clock")] {
            for (int n = 0; n < 20; ++n) {
                wrong += log_path_of(name) == "/" + name ? 0 : 1;
                wrong += log_path_of("nobody") == "nobody" ? 0 : 1;
                wrong += diagnostics->is_discovered(name) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(DiagnosticsQuestions, AStopEndsThoseUnderWayAndFurtherOnes) {
    Application const clock(bus, 400, "clock"); // Tells of the other.
    RawNode raw(bus, 300);
    raw.join();
    raw.announce("weather");
    start_and_find({"weather"});
    std::vector<std::future<bool>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(std::async(std::launch::async, [&] {
            return diagnostics
                ->with_package("weather",
                               [](AppControlClient& client) { return client.log_info(K_FOR_EVER); })
                .has_value();
        }));
    }
    wait_until([&] { return requests(raw, "info") == 1; }, "the first one waits");
    diagnostics->request_stop();
    for (auto& question : waiting) {
        EXPECT_FALSE(question.get());
    }
    EXPECT_EQ(log_path_of("weather"), "nobody");
    EXPECT_TRUE(diagnostics->is_discovered("weather"));
    diagnostics->request_stop();
}

} // namespace
} // namespace mirelclient::test
