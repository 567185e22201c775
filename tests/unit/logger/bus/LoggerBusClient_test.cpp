#include "LoggerBusFixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace tessaron {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

class LoggerBusClientTest : public test::LoggerBusFixture {
protected:
    LoggerBusClientTest() {
        logger.set_level(LogLevel::INFO);
        logger.redirect_to_file(path);
    }

    /// What stands in the file of the messages that are not the log's own.
    std::vector<std::string> own_messages() {
        auto all = messages();
        std::erase_if(all, [](std::string const& m) { return m.starts_with("[logger.self] "); });
        return all;
    }
};

TEST_F(LoggerBusClientTest, ALineHasTheLogsLabelAndThatOfItsSource) {
    auto const source = adapter->make_client("disk");
    source->log(LogLevel::WARNING, "only ", 12, " % free");
    logger.flush();
    EXPECT_THAT(test::lines_of(path).back(),
                testing::MatchesRegex("\\[" + label +
                                      "\\] \\[WARNING\\] \\[[-0-9_:.]+\\] \\[disk\\] only 12 % "
                                      "free"));
}

TEST_F(LoggerBusClientTest, AMessageStandsInTheLogsQueueWhenTheCallReturns) {
    auto const source = adapter->make_client("app");
    for (int number = 0; number < 100; ++number) {
        source->log(LogLevel::INFO, number);
        EXPECT_EQ(own_messages().back(), "[app] " + std::to_string(number));
    }
}

TEST_F(LoggerBusClientTest, TheFileIsReachedWithoutTheWire) {
    bus.set_tamper([](auto) { return std::vector<test::LoopbackBus::Datagram>(); });
    adapter->make_client("app")->log(LogLevel::INFO, "alone");
    EXPECT_THAT(own_messages(), ElementsAre("[app] alone"));
}

TEST_F(LoggerBusClientTest, TheLogDecidesWhatIsBelowItsLevelButRemembersAll) {
    auto const source = adapter->make_client("app");
    source->log(LogLevel::TRACE, "not in the file");
    logger.set_level(LogLevel::TRACE);
    source->log(LogLevel::TRACE, "in the file");
    EXPECT_THAT(own_messages(), ElementsAre("[app] in the file"));
    auto const trace = logger.log_trace_snapshot();
    EXPECT_STREQ(trace.entries[(trace.write_index - 2) % Logger::K_TRACE_SIZE].text,
                 "[app] not in the file");
}

TEST_F(LoggerBusClientTest, AnEntryTravelsOnTheBusWithItsListenersAddress) {
    test::Collected<LoggerEntry> entries;
    asker->subscribe<LoggerEntry>("log.entry", [&](LoggerEntry const& entry) {
        if (entry.source == "app") {
            entries.add(entry);
        }
    });
    adapter->make_client("app")->log(LogLevel::ERROR, "seen elsewhere");
    ASSERT_TRUE(entries.wait_for(1, "the entry arrives"));
    LoggerEntry const entry = entries.all().front();
    EXPECT_EQ(entry.severity, LogLevel::ERROR);
    EXPECT_EQ(entry.message, "seen elsewhere");
    EXPECT_EQ(entry.timestamp, clock.time_stamp());
    EXPECT_EQ(entry.listener_address, K_LISTENER);
    asker.reset();
}

TEST_F(LoggerBusClientTest, ASourceOnAnotherNodeReachesTheListenerThatItNames) {
    auto const named = LoggerBusClient::create(
        other.hub, 4001, proto::bus::make_identity("far", "test", 1), clock, K_LISTENER);
    auto const strange = LoggerBusClient::create(
        other.hub, 4002, proto::bus::make_identity("strange", "test", 1), clock, K_LISTENER + 1);
    strange->log(LogLevel::INFO, "for somebody else");
    named->log(LogLevel::INFO, "for this one");
    ASSERT_TRUE(test::wait_until([&] { return !own_messages().empty(); }, "the message arrives"));
    EXPECT_THAT(own_messages(), ElementsAre("[far] for this one"));
}

TEST_F(LoggerBusClientTest, AMessageLargerThanTheBusTakesIsCut) {
    logger.set_max_file_size(0);
    std::string const message(2'000'000, 'x');
    adapter->make_client("app")->log(LogLevel::INFO, message);
    auto const written = own_messages();
    ASSERT_EQ(written.size(), 1U);
    EXPECT_EQ(written[0].size(), std::string("[app] ...").size() + LoggerBusClient::K_MAX_MESSAGE);
    EXPECT_THAT(written[0], EndsWith("x..."));
}

TEST_F(LoggerBusClientTest, WhatIsWrittenToTheStreamIsLoggedLineByLine) {
    auto const source = adapter->make_client("app");
    source->get_stream() << "one " << 1 << "\n\ntwo\nthr";
    EXPECT_THAT(own_messages(), ElementsAre("[app] one 1", "[app] two"));
    source->get_stream() << "ee" << std::flush;
    EXPECT_THAT(own_messages(), ElementsAre("[app] one 1", "[app] two", "[app] three"));
}

TEST_F(LoggerBusClientTest, ASourceIsTheSameForAllWhoAskAndKeepsItsAddress) {
    auto const first = adapter->make_client("app");
    EXPECT_EQ(adapter->make_client("app"), first);
    auto second = adapter->make_client("other");
    EXPECT_NE(first->address(), second->address());
    std::uint32_t const address = second->address();
    std::weak_ptr<LoggerBusClient> const gone = second;
    second.reset();
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(adapter->make_client("other")->address(), address);
}

TEST_F(LoggerBusClientTest, ThreadsLogThroughOneSourceAndMakeOthers) {
    auto const source = adapter->make_client("app");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            auto const own = adapter->make_client("thread " + std::to_string(thread));
            for (int number = 0; number < 50; ++number) {
                source->log(LogLevel::INFO, thread);
                own->log(LogLevel::INFO, number);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    auto const all = own_messages();
    EXPECT_EQ(all.size(), 400U);
    for (int thread = 0; thread < 4; ++thread) {
        EXPECT_EQ(std::count(all.begin(), all.end(), "[app] " + std::to_string(thread)), 50);
        EXPECT_THAT(all, Contains("[thread " + std::to_string(thread) + "] 49"));
    }
}

} // namespace
} // namespace tessaron
