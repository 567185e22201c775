#include "MirelClientApp/remote/HeartbeatSender.hpp"

#include "MirelClientApp/remote/RegistryClient.hpp"
#include "tests/support/TestHttpServer.hpp"
#include "tests/support/wait_until.hpp"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <string>

namespace mirelclient {
namespace {

using tessaron::test::TestHttpServer;
using tessaron::test::wait_until;
using testing::Each;
using testing::ElementsAre;

constexpr char const* K_PATH = "/api/clients/heartbeat";
constexpr long long K_AN_HOUR = 3600;

struct HeartbeatSenderTest : testing::Test {
    HeartbeatSenderTest() { server.answer(K_PATH, {"{}"}); }

    /// What the first beat of a machine of that name says.
    std::string first_body(std::string const& name, std::string const& address) {
        HeartbeatSender sender(registry, name, address, K_AN_HOUR);
        sender.start();
        wait_until([this] { return !server.bodies().empty(); }, "a beat has come");
        return server.bodies().at(0);
    }

    TestHttpServer server;
    RegistryClient registry{server.url()};
};

std::size_t thread_count() {
    auto const all = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST_F(HeartbeatSenderTest, TheFirstBeatGoesOutAtOnce) {
    EXPECT_EQ(first_body("box", "http://192.0.2.10:7080"),
              R"({"name":"box","address":"http://192.0.2.10:7080"})");
    EXPECT_THAT(server.requests(), ElementsAre(K_PATH));
}

TEST_F(HeartbeatSenderTest, ASingleQuoteSurvivesTheShell) {
    EXPECT_EQ(first_body("Tom's; touch $(id) `id` box", "a"),
              R"({"name":"Tom's; touch $(id) `id` box","address":"a"})");
}

TEST_F(HeartbeatSenderTest, QuotesAndBackslashesAreEscapedAndNothingElse) {
    EXPECT_EQ(first_body("a\"b\\c\td", "\\"), "{\"name\":\"a\\\"b\\\\c\td\",\"address\":\"\\\\\"}");
}

TEST(HeartbeatSender, TheCommandIsExact) {
    EXPECT_EQ(HeartbeatSender::beat_command("http://h'x", "n'1", "a"),
              R"(curl -fsS -m 5 -X POST -H 'Content-Type: application/json' -d )"
              R"('{"name":"n'\''1","address":"a"}' 'http://h'\''x/api/clients/heartbeat' )"
              R"(>/dev/null 2>&1)");
}

TEST_F(HeartbeatSenderTest, WithoutAnAddressNoThreadStarts) {
    std::size_t const before = thread_count();
    HeartbeatSender sender(registry, "box", "", 1);
    sender.start();
    EXPECT_EQ(thread_count(), before);
}

TEST_F(HeartbeatSenderTest, BeatsFollowOneAnother) {
    HeartbeatSender sender(registry, "box", "a", 1);
    sender.start();
    wait_until([this] { return server.bodies().size() >= 3; }, "three beats have come");
    EXPECT_THAT(server.bodies(), Each(R"({"name":"box","address":"a"})"));
}

TEST_F(HeartbeatSenderTest, AnIntervalBelowOneSecondMeansThirty) {
    using std::chrono::seconds;
    EXPECT_EQ(HeartbeatSender(registry, "n", "a", 0).interval(), seconds(30));
    EXPECT_EQ(HeartbeatSender(registry, "n", "a", -5).interval(), seconds(30));
    EXPECT_EQ(HeartbeatSender(registry, "n", "a", 1).interval(), seconds(1));
}

TEST_F(HeartbeatSenderTest, AnIntervalBeyondTheClockWaitsAndCanBeStopped) {
    HeartbeatSender sender(registry, "box", "a", std::numeric_limits<long long>::max());
    sender.start();
    wait_until([this] { return !server.bodies().empty(); }, "a beat has come");
    sender.stop();
    EXPECT_EQ(server.bodies().size(), 1U);
}

TEST_F(HeartbeatSenderTest, AFailedBeatDoesNotEndTheNextOnes) {
    TestHttpServer refusing;
    registry.set_base_url(refusing.url());
    HeartbeatSender sender(registry, "box", "a", 1);
    sender.start();
    wait_until([&refusing] { return refusing.requests().size() >= 2; }, "it was told off twice");
}

TEST_F(HeartbeatSenderTest, AChangedServerGetsTheNextBeat) {
    HeartbeatSender sender(registry, "box", "a", 1);
    sender.start();
    wait_until([this] { return !server.bodies().empty(); }, "the first server has a beat");
    TestHttpServer second;
    registry.set_base_url(second.url());
    wait_until([&second] { return !second.bodies().empty(); }, "the second server has a beat");
}

TEST_F(HeartbeatSenderTest, ASecondStartChangesNothing) {
    HeartbeatSender sender(registry, "box", "a", K_AN_HOUR);
    sender.start();
    sender.start();
    wait_until([this] { return !server.bodies().empty(); }, "a beat has come");
    sender.stop();
    sender.stop();
    EXPECT_EQ(server.bodies().size(), 1U);
}

TEST_F(HeartbeatSenderTest, AStopEndsABeatThatHangs) {
    server.answer(K_PATH, {"", 1, true});
    HeartbeatSender sender(registry, "box", "a", K_AN_HOUR);
    sender.start();
    wait_until([this] { return !server.bodies().empty(); }, "the beat is under way");
    sender.stop();
    EXPECT_EQ(server.bodies().size(), 1U);
}

TEST_F(HeartbeatSenderTest, AStoppedSenderCanBeStartedAgain) {
    HeartbeatSender sender(registry, "box", "a", K_AN_HOUR);
    for (std::size_t beats = 1; beats <= 2; ++beats) {
        sender.start();
        wait_until([this, beats] { return server.bodies().size() == beats; }, "a beat has come");
        sender.stop();
    }
}

} // namespace
} // namespace mirelclient
