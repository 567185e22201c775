#include "app/incident_history.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace tessaron {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class IncidentHistory : public testing::Test {
protected:
    std::string put(std::string const& name, std::string const& text) {
        std::string const path = directory_ / name;
        EXPECT_TRUE(write_file(path, text, O_TRUNC));
        return path;
    }
    std::string put_report(std::string const& name, std::string const& message) {
        return put(name, "=== incident report ===\napp: a 1\npid: 12\nts: 1700000000\n"
                         "triggered by: [ERROR] " +
                             message + "\n\nBacktrace:\npid: 99\n");
    }
    std::optional<IncidentRecord> parse(std::string const& text) {
        return parse_incident_report_file(put("incident-1.txt", text));
    }

    test::TemporaryDirectory directory_;
};

TEST_F(IncidentHistory, AReportReadsAsItsSummary) {
    EXPECT_EQ(parse_incident_report_file(put_report("incident-1.txt", "disk [sda] is full")),
              (IncidentRecord{12, 1'700'000'000, "ERROR", "disk [sda] is full"}));
}

TEST_F(IncidentHistory, LinesAreFoundByTheirBeginningsAndNotByTheirPlaces) {
    EXPECT_EQ(parse("ts: 5\nother\npid: 6\n\ntriggered by: [ERROR] x\n"),
              (IncidentRecord{6, 5, "ERROR", "x"}));
}

TEST_F(IncidentHistory, NothingBehindTheTriggerIsRead) {
    EXPECT_EQ(parse("triggered by: [ERROR] x\npid: 6\nts: 5\n"),
              (IncidentRecord{0, 0, "ERROR", "x"}));
}

TEST_F(IncidentHistory, WhatAReportDoesNotTellKeepsItsDefault) {
    EXPECT_EQ(parse(""), IncidentRecord());
    EXPECT_EQ(parse("pid: many\nts: 12x\ntriggered by: [ERR"), (IncidentRecord{0, 0, "ERR", ""}));
    EXPECT_EQ(parse("triggered by: [ERROR]\n"), (IncidentRecord{0, 0, "ERROR", ""}));
    EXPECT_EQ(parse("triggered by: ERROR x\n"), IncidentRecord());
}

TEST_F(IncidentHistory, WhatIsNoReadableFileIsNoReport) {
    EXPECT_EQ(parse_incident_report_file(directory_ / "incident-7.txt"), std::nullopt);
    EXPECT_EQ(parse_incident_report_file(directory_.path()), std::nullopt);
    std::string const pipe = directory_ / "incident-8.txt";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(parse_incident_report_file(pipe), std::nullopt);
}

TEST_F(IncidentHistory, IsInOrderAndHoldsNothingElse) {
    put_report("incident-1700000000002.txt", "second");
    put_report("incident-1700000000010.txt", "third");
    put_report("incident-1700000000001.txt", "first");
    put_report("incident-1700000000003.log", "no report");
    put_report("other-1700000000003.txt", "no report");
    std::vector<std::string> messages;
    for (IncidentRecord const& record : read_incident_history(directory_.path(), 0)) {
        messages.push_back(record.message);
    }
    EXPECT_THAT(messages, ElementsAre("first", "second", "third"));
}

TEST_F(IncidentHistory, OfTooManyTheNewestAreLeft) {
    for (int i = 1; i <= 5; ++i) {
        put_report("incident-" + std::to_string(i) + ".txt", std::to_string(i));
    }
    auto const records = read_incident_history(directory_.path(), 2);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "4");
    EXPECT_EQ(records[1].message, "5");
    EXPECT_EQ(read_incident_history(directory_.path(), 5).size(), 5u);
}

TEST_F(IncidentHistory, OfADirectoryThatIsNotThereIsEmpty) {
    EXPECT_THAT(read_incident_history(directory_ / "none", 0), IsEmpty());
}

} // namespace
} // namespace tessaron
