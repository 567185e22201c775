#include "app/AppControlClient.hpp"

#include "bus/identity_text.hpp"
#include "tests/support/bus_nodes.hpp"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tuple>

namespace tessaron {
namespace {

using bus::LocalClient;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::SizeIs;

/// An application on another node, one of its services to a client.
class AppControlClientTest : public testing::Test {
protected:
    AppControlClientTest() {
        node.join();
        far.join();
        control = far.hub.connect(311, proto::bus::make_identity("control", "far", 1));
        config = far.hub.connect(2300, proto::bus::make_identity("config", "far", 1));
        logger = far.hub.connect(1300, proto::bus::make_identity("logger", "far", 1));
        client = AppControlClient::create(node.hub, 3200);
        client->set_targets(311, 2300, 1300);
    }

    /// Answers, and shows what was asked.
    template <typename Request, typename Reply>
    static void answer(LocalClient& service, std::string const& topic, Reply const& reply,
                       test::Collected<Request> const& asked = {}) {
        service.serve_record<Request, Reply>(
            topic,
            [reply, asked](Request const& request) {
                asked.add(request);
                return reply;
            },
            "");
    }

    test::LoopbackBus bus;
    test::HubNode node{bus, 200, "node"};
    test::HubNode far{bus, 300, "far"};
    std::shared_ptr<LocalClient> control;
    std::shared_ptr<LocalClient> config;
    std::shared_ptr<LocalClient> logger;
    std::shared_ptr<AppControlClient> client;
};

TEST_F(AppControlClientTest, EachQuestionGoesToItsTargetWithItsRecord) {
    test::Collected<CrashHistoryRequest> crashes;
    test::Collected<CrashIncidentRequest> incidents;
    test::Collected<LogReadRequest> reads;
    test::Collected<config::ConfigSetRequest> sets;
    answer<SessionHistoryRequest>(*control, "session_history", SessionHistoryReply());
    answer(*control, "crash_history", CrashHistoryReply(), crashes);
    answer(*control, "crash_incident", CrashIncidentReply{true, "", {"line"}}, incidents);
    answer<LogInfoRequest>(*logger, "info",
                           LogInfoReply{true, "", "/log", 1, 2, LogLevel::INFO, 3});
    answer(*logger, "read", LogReadReply{true, "", 9, 4, 0, true, {"text"}}, reads);
    answer<config::ConfigListRequest>(*config, "list", config::ConfigListReply());
    answer(*config, "set", config::ConfigSetReply(), sets);

    EXPECT_TRUE(client->session_history(3, test::K_LONG));
    EXPECT_TRUE(client->crash_history(5, 2, test::K_LONG));
    EXPECT_EQ(crashes.all().at(0).max_records, 5U);
    EXPECT_EQ(crashes.all().at(0).skip_from_end, 2U);
    EXPECT_THAT(client->crash_incident(12, 1700, test::K_LONG)->lines, ElementsAre("line"));
    EXPECT_EQ(incidents.all().at(0).pid, 12);
    EXPECT_EQ(incidents.all().at(0).ts, 1700);
    EXPECT_EQ(client->log_info(test::K_LONG)->path, "/log");
    EXPECT_THAT(client->log_read(4, 5, test::K_LONG)->lines, ElementsAre("text"));
    EXPECT_EQ(reads.all().at(0).from_line, 4U);
    EXPECT_EQ(reads.all().at(0).to_line, 5U);
    EXPECT_EQ(reads.all().at(0).generation, std::nullopt);
    EXPECT_TRUE(client->config_list(test::K_LONG));
    EXPECT_TRUE(client->config_set("a", "b", test::K_LONG)->ok);
    EXPECT_EQ(sets.all().at(0).name, "a");
    EXPECT_EQ(sets.all().at(0).value, "b");
}

TEST_F(AppControlClientTest, AnErrorIsNoAnswerButWhereItsTextMatters) {
    answer<SessionHistoryRequest>(*control, "session_history",
                                  SessionHistoryReply{false, "no", {}});
    answer<CrashIncidentRequest>(*control, "crash_incident", CrashIncidentReply{false, "no", {}});
    answer<LogInfoRequest>(*logger, "info", LogInfoReply{false, "no", "", 0, 0, LogLevel::INFO, 0});
    answer<LogReadRequest>(*logger, "read", LogReadReply{false, "no", 0, 0, 0, true, {}});
    answer<config::ConfigSetRequest>(*config, "set", config::ConfigSetReply{false, "no"});
    EXPECT_EQ(client->session_history(0, test::K_LONG), std::nullopt);
    EXPECT_EQ(client->crash_incident(1, 2, test::K_LONG), std::nullopt);
    EXPECT_EQ(client->log_info(test::K_LONG), std::nullopt);
    EXPECT_EQ(client->log_read(0, 0, test::K_LONG)->error, "no");
    EXPECT_EQ(client->config_set("a", "b", test::K_LONG)->error, "no");
}

TEST_F(AppControlClientTest, WhatCannotBeReadIsNoAnswer) {
    control->serve(
        "session_history", [](Bytes const&) { return Bytes{1}; }, "");
    EXPECT_EQ(client->session_history(0, test::K_LONG), std::nullopt);
}

TEST_F(AppControlClientTest, WithoutAnAnswerTheTimeRunsOut) {
    EXPECT_EQ(client->config_list(milliseconds(20)), std::nullopt);
}

TEST_F(AppControlClientTest, TheMapOfTheNetworkIsWhatAllWhoAnswerKnow) {
    auto const hub = [](std::uint32_t address, std::string const& name) {
        return proto::bus::HubSummary{address, name, 0, {}};
    };
    // Each of them knows of a node that nobody else has heard of.
    test::RawNode one(bus, 9);
    test::RawNode two(bus, 10);
    for (test::RawNode* const raw : {&one, &two}) {
        raw->on_frame = [&hub, raw, is_one = raw == &one](bus::WireFrame const& frame) {
            if (frame.type == test::MessageType::REQUEST) {
                auto const known = is_one ? hub(901, "first") : hub(902, "second");
                raw->send(test::MessageType::RESPONSE, 3200,
                          proto::bus::encode_network_domain({0, {known}, {}}), "", frame.msg_id);
            }
        };
        raw->join();
    }
    std::vector<std::string> names;
    EXPECT_TRUE(test::wait_until(
        [&] {
            auto const map = client->discover_network(0, milliseconds(200));
            names.clear();
            for (auto const& known : map ? map->hubs : std::vector<proto::bus::HubSummary>()) {
                names.push_back(known.name);
            }
            return names.size() == 4;
        },
        "the map has all hubs"));
    EXPECT_THAT(names, ElementsAre("node", "far", "first", "second"));
}

TEST_F(AppControlClientTest, TheLogIsReadOfTheFileThatIsAskedFor) {
    test::Collected<LogReadRequest> reads;
    answer(*logger, "read", LogReadReply{true, "", 9, 1, 2, true, {"text"}}, reads);
    EXPECT_EQ(client->log_read(1, 0, test::K_LONG, 2)->generation, 2U);
    EXPECT_EQ(reads.all().at(0).generation, 2U);
}

TEST_F(AppControlClientTest, AStopEndsWhoeverWaitsAndFurtherQuestions) {
    std::chrono::hours const for_ever(1);
    auto map =
        std::async(std::launch::async, [&] { return client->discover_network(0, for_ever); });
    auto list = std::async(std::launch::async, [&] { return client->config_list(for_ever); });
    client->request_stop();
    std::ignore = map.get(); // Whatever had come.
    EXPECT_EQ(list.get(), std::nullopt);
    std::ignore = client->discover_network(0, for_ever);
    EXPECT_EQ(client->crash_incident(1, 2, for_ever), std::nullopt);
}

TEST_F(AppControlClientTest, ItIsANodeOfItsOwn) {
    auto const named = AppControlClient::create(node.hub, 3300, {"diagnostics", 1, 2, 3});
    EXPECT_EQ(named->address(), 3300U);
    auto const device = node.hub.discovered_devices().at(200);
    std::vector<std::string> names;
    for (auto const& module : device.hosted_modules) {
        names.push_back(module.name);
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("app_control_client", "diagnostics"));
}

} // namespace
} // namespace tessaron
