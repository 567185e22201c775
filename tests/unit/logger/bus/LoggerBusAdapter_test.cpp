#include "LoggerBusFixture.hpp"

#include "bus/record_fields.hpp"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using bus::Envelope;
using proto::bus::TopicKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class LoggerBusAdapterTest : public test::LoggerBusFixture {
protected:
    /// The own lines among those that are told of.
    void watch_lines(test::Collected<LoggerLineEvent> const& lines) {
        asker->subscribe<LoggerLineEvent>(
            "log.line", [lines](LoggerLineEvent const& line) { lines.add(line); });
    }
    LogReadReply read(std::uint64_t from, std::uint64_t to,
                      std::optional<std::uint64_t> generation = std::nullopt) {
        return ask<LogReadReply>("read", LogReadRequest{from, to, generation})
            .value_or(LogReadReply{false, "no reply", 0, 0, 0, false, {}});
    }
    LogLevelReply set_level(std::string const& level) {
        return ask<LogLevelReply>("level.set", LogLevelRequest{level})
            .value_or(LogLevelReply{false, "no reply", std::nullopt});
    }
};

TEST_F(LoggerBusAdapterTest, EachWrittenLineIsToldOfWithItsNumber) {
    test::Collected<LoggerLineEvent> lines;
    watch_lines(lines);
    log("first");
    log("second", LogLevel::ERROR);
    ASSERT_TRUE(lines.wait_for(2, "two lines are told of"));
    EXPECT_THAT(lines.all()[0].text, testing::EndsWith("] first"));
    EXPECT_EQ(lines.all()[0].line_number, 1U);
    EXPECT_EQ(lines.all()[0].source_address, K_LISTENER);
    EXPECT_EQ(lines.all()[0].generation, 0U);
    EXPECT_EQ(lines.all()[1].line_number, 2U);
    asker.reset();
}

TEST_F(LoggerBusAdapterTest, ATraceLineIsWrittenButNotToldOf) {
    logger.redirect_to_file(path);
    test::Collected<LoggerLineEvent> lines;
    watch_lines(lines);
    log("in the file alone", LogLevel::TRACE);
    log("a marker behind it");
    ASSERT_TRUE(test::wait_until(
        [&] { return lines.size() != 0 && lines.all().back().text.ends_with("behind it"); },
        "the marker is told of"));
    EXPECT_THAT(messages(), testing::Contains("in the file alone"));
    for (LoggerLineEvent const& line : lines.all()) {
        EXPECT_THAT(line.text, testing::Not(HasSubstr("in the file alone")));
    }
    asker.reset();
}

TEST_F(LoggerBusAdapterTest, TheLogsOwnMessagesHaveTheSourceLoggerSelf) {
    logger.redirect_to_file(path);
    EXPECT_THAT(messages(), ElementsAre("[logger.self] Redirecting log output to '" + path + "'",
                                        "[logger.self] Log output redirected here from a previous "
                                        "destination"));
}

TEST_F(LoggerBusAdapterTest, InfoBeforeARedirectHasNoPath) {
    logger.set_level(LogLevel::WARNING);
    auto const info = ask<LogInfoReply>("info", LogInfoRequest());
    ASSERT_TRUE(info);
    EXPECT_TRUE(info->ok);
    EXPECT_EQ(info->path, "");
    EXPECT_EQ(info->line_count, 0U);
    EXPECT_EQ(info->min_level, LogLevel::WARNING);
}

TEST_F(LoggerBusAdapterTest, InfoTellsOfTheFile) {
    logger.redirect_to_file(path);
    log("a line");
    auto const info = ask<LogInfoReply>("info", LogInfoRequest());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->path, path);
    EXPECT_EQ(info->line_count, 3U);
    EXPECT_EQ(info->file_size_bytes, std::filesystem::file_size(path));
    EXPECT_EQ(info->min_level, LogLevel::TRACE);
    EXPECT_EQ(info->generation, 0U);
}

TEST_F(LoggerBusAdapterTest, LinesAreReadByTheirNumbers) {
    logger.redirect_to_file(path);
    for (int number = 3; number <= 9; ++number) {
        log(std::to_string(number));
    }
    LogReadReply const some = read(4, 5);
    EXPECT_TRUE(some.ok);
    EXPECT_TRUE(some.available);
    EXPECT_EQ(some.total_lines, 9U);
    EXPECT_EQ(some.from_line, 4U);
    ASSERT_THAT(some.lines, SizeIs(2));
    EXPECT_THAT(some.lines[1], testing::EndsWith("] 5"));
    EXPECT_THAT(read(0, 0).lines, SizeIs(9));
    EXPECT_THAT(read(10, 0).lines, IsEmpty());
    EXPECT_THAT(read(5, 4).lines, IsEmpty());
}

TEST_F(LoggerBusAdapterTest, AnOlderGenerationIsReadAsLongAsItIsKept) {
    logger.redirect_to_file(path);
    logger.set_kept_generations(1);
    logger.set_max_file_size(1);
    log("ends the first file");
    log("ends the second file");
    LogReadReply const gone = read(0, 0, 0);
    EXPECT_TRUE(gone.ok);
    EXPECT_FALSE(gone.available);
    EXPECT_EQ(gone.generation, 0U);
    EXPECT_THAT(gone.lines, IsEmpty());
    std::uint64_t const current = read(0, 0).generation;
    LogReadReply const kept = read(0, 0, current - 1);
    EXPECT_TRUE(kept.available);
    ASSERT_THAT(kept.lines, SizeIs(1));
    EXPECT_THAT(kept.lines[0], HasSubstr("ends the second file"));
}

TEST_F(LoggerBusAdapterTest, AReplyEndsWhereAMessageWouldBecomeTooLarge) {
    logger.set_max_file_size(0);
    logger.redirect_to_file(path);
    std::string const half(bus::K_MAX_RECORD_DATA / 2, 'x');
    log(half);
    log(half);
    LogReadReply const first = read(3, 0);
    EXPECT_TRUE(first.ok);
    EXPECT_THAT(first.lines, SizeIs(1));
    EXPECT_THAT(read(4, 0).lines, SizeIs(1));
    log(half + half);
    EXPECT_THAT(read(5, 0).lines, ElementsAre(SizeIs(bus::K_MAX_RECORD_DATA)));
}

TEST_F(LoggerBusAdapterTest, TheLevelIsAskedAndSet) {
    EXPECT_EQ(ask<LogLevelReply>("level.get", LogInfoRequest())->level, LogLevel::TRACE);
    EXPECT_TRUE(set_level("2").ok);
    EXPECT_EQ(logger.get_level(), LogLevel::WARNING);
    EXPECT_EQ(ask<LogLevelReply>("level.get", LogInfoRequest())->level, LogLevel::WARNING);
}

TEST_F(LoggerBusAdapterTest, ALevelThatIsNoneIsRefusedAndChangesNothing) {
    for (std::string const level : {"4", "-1", "", "WARNING", "256", "2.0"}) {
        LogLevelReply const reply = set_level(level);
        EXPECT_FALSE(reply.ok);
        EXPECT_EQ(reply.error, "not a level (0 to 3): " + level);
    }
    EXPECT_EQ(logger.get_level(), LogLevel::TRACE);
}

TEST_F(LoggerBusAdapterTest, WhatIsNoEnvelopeIsWarnedAboutAndLeftWithoutAnswer) {
    asker->publish("log.entry", test::bytes_of("no envelope"));
    ASSERT_TRUE(node.warnings.wait_for(1, "the entry is warned about"));
    EXPECT_EQ(asker->request_to(K_LISTENER, "read", test::bytes_of("no envelope"),
                                std::chrono::milliseconds(100)),
              std::nullopt);
    ASSERT_TRUE(node.warnings.wait_for(2, "the request is warned about"));
    EXPECT_THAT(node.warnings.all(),
                ElementsAre("[bus] EVENT handler for 'log.entry' threw on this payload "
                            "(malformed/unexpected?): Envelope: truncated or malformed",
                            "[bus] REQUEST handler for 'read' threw on this payload "
                            "(malformed/unexpected?): Envelope: truncated or malformed - dropping, "
                            "requester will see a timeout"));
    EXPECT_TRUE(set_level("1").ok);
}

TEST_F(LoggerBusAdapterTest, EverythingIsDeclaredWithItsText) {
    auto const device = node.hub.discovered_devices().at(200);
    std::map<std::string, proto::bus::TopicDescription> topics;
    for (auto const& topic : device.publications) {
        topics[topic.name] = topic;
    }
    EXPECT_THAT(topics.at("log.line").description, testing::StartsWith("Pushed once per line "));
    EXPECT_EQ(topics.at("log.line").kind, TopicKind::EVENT);
    EXPECT_EQ(topics.at("log.entry").description, "Log entries published by this client");
    EXPECT_THAT(topics.at("info").description, HasSubstr("empty path means no log file"));
    EXPECT_EQ(topics.at("read").kind, TopicKind::REQUEST);
    EXPECT_THAT(topics.at("level.get").description, HasSubstr("bundles as its own min_level"));
    EXPECT_THAT(topics.at("level.set").description, HasSubstr("takes effect immediately"));
    ASSERT_THAT(topics.at("level.set").params, SizeIs(1));
    EXPECT_EQ(topics.at("level.set").params[0].text, "level (0=TRACE/1=INFO/2=WARNING/3=ERROR)");
    std::vector<std::string> heard;
    for (auto const& topic : device.subscriptions) {
        EXPECT_EQ(topic.description,
                  "Log entries published by any LoggerBusClient of this logger's ListenOnBus()");
        heard.push_back(topic.name);
    }
    EXPECT_THAT(heard, testing::UnorderedElementsAre("log.entry", "logger.self"));
}

TEST_F(LoggerBusAdapterTest, AfterItsEndTheLogGoesOnByItself) {
    auto const source = adapter->make_client("app");
    source->log(LogLevel::INFO, "with it");
    adapter.reset();
    source->log(LogLevel::INFO, "goes nowhere");
    logger.redirect_to_file(path);
    EXPECT_THAT(messages(), ElementsAre("[app] with it", "Redirecting log output to '" + path + "'",
                                        "Log output redirected here from a previous destination"));
}

TEST_F(LoggerBusAdapterTest, ItCanGoWhileLinesAreBeingWrittenAndAskedFor) {
    logger.redirect_to_file(path);
    std::atomic<bool> running{true};
    std::thread writer([&] {
        while (running) {
            log("another line");
        }
    });
    std::thread reader([&] {
        while (running) {
            asker->request_to(K_LISTENER, "info", LogInfoRequest().build(),
                              std::chrono::milliseconds(50));
        }
    });
    for (int round = 0; round < 5; ++round) {
        adapter.reset();
        adapter = std::make_unique<LoggerBusAdapter>(logger);
        adapter->listen_on_bus(node.hub, proto::bus::make_identity("logger", "app-of-test", 1),
                               K_LISTENER);
    }
    running = false;
    writer.join();
    reader.join();
    // Again and again: amid so many events a request may be lost.
    EXPECT_TRUE(test::wait_until(
        [&] {
            return asker
                ->request_to(K_LISTENER, "info", LogInfoRequest().build(),
                             std::chrono::milliseconds(50))
                .has_value();
        },
        "the last listener answers"));
}

} // namespace
} // namespace tessaron
