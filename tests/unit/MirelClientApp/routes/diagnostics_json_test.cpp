#include "MirelClientApp/routes/diagnostics_json.hpp"

#include <gtest/gtest.h>
#include <limits>

namespace mirelclient::json_helpers {
namespace {

using std::chrono::system_clock;

TEST(DiagnosticsJson, TimesAreWholeSecondsWithoutTheRest) {
    using std::chrono::microseconds;
    auto const at = [](std::int64_t us) {
        return system_clock::time_point(
            std::chrono::duration_cast<system_clock::duration>(microseconds(us)));
    };
    EXPECT_EQ(to_epoch_seconds(at(0)), 0);
    EXPECT_EQ(to_epoch_seconds(at(1'999'999)), 1);
    EXPECT_EQ(to_epoch_seconds(at(1'700'000'000'000'001)), 1'700'000'000);
}

TEST(DiagnosticsJson, AStartHasItsKeysInOrder) {
    tessaron::SessionRecord record;
    record.is_start = true;
    record.ts = system_clock::time_point(std::chrono::milliseconds(1'700'000'000'999));
    record.pid = 4242;
    record.exe = "/bin/x";
    record.user = "me";
    record.cwd = "/tmp";
    record.args = {"-a", "b c", ""};
    record.log_line = 7;
    record.generation = 3;
    record.runtime = "state";
    EXPECT_EQ(session_record(record).dump(),
              R"({"args":"-a b c ","duration_seconds":0,"executable_path":"/bin/x",)"
              R"("is_start":true,"log_line":7,"pid":4242,"reason":"","runtime_snapshot":"state",)"
              R"("timestamp":1700000000,"user":"me","working_dir":"/tmp"})");
}

TEST(DiagnosticsJson, AStopHasItsReasonAndDuration) {
    tessaron::SessionRecord record;
    record.ts = system_clock::time_point(std::chrono::seconds(5));
    record.pid = 1;
    record.duration_s = std::chrono::seconds(86'400'000);
    record.reason = "crash: \"x\"";
    EXPECT_EQ(session_record(record).dump(),
              R"({"args":"","duration_seconds":86400000,"executable_path":"","is_start":false,)"
              R"("log_line":0,"pid":1,"reason":"crash: \"x\"","runtime_snapshot":"",)"
              R"("timestamp":5,"user":"","working_dir":""})");
}

TEST(DiagnosticsJson, ACrashHasItsKeysInOrderAndNoCompiler) {
    tessaron::CrashRecord record;
    record.ts = 1700000000;
    record.ts_ms = 7;
    record.pid = 4242;
    record.signum = 11;
    record.addr = 0xDEADBEEF;
    record.detail = "d";
    record.backtrace = {"a", "b|c"};
    record.version = "1.2.3";
    record.build_ts = "20240131.123456";
    record.build_machine = "host";
    record.build_user = "me";
    record.commit = "0123";
    record.build_type = "Release";
    record.compiler = "GNU";
    EXPECT_EQ(crash_record(record).dump(),
              R"({"addr":"0xdeadbeef","backtrace":["a","b|c"],"build_machine":"host",)"
              R"("build_ts":"20240131.123456","build_type":"Release","build_user":"me",)"
              R"("commit":"0123","detail":"d","pid":4242,"signum":11,"ts":1700000000,"ts_ms":7,)"
              R"("version":"1.2.3"})");
}

TEST(DiagnosticsJson, ACrashWithoutAnAddressHasAnEmptyOne) {
    EXPECT_EQ(crash_record({}).dump(),
              R"({"addr":"","backtrace":[],"build_machine":"","build_ts":"","build_type":"",)"
              R"("build_user":"","commit":"","detail":"","pid":0,"signum":0,"ts":0,"ts_ms":0,)"
              R"("version":""})");
    tessaron::CrashRecord null_pointer;
    null_pointer.addr = 0;
    EXPECT_EQ(crash_record(null_pointer).at("addr").as_string(""), "0x0");
}

TEST(DiagnosticsJson, ALogTellsItsFacts) {
    EXPECT_EQ(log_info({true, "", "/log/app.log", 12, 5'000'000'000, tessaron::LogLevel::ERROR, 4})
                  .dump(),
              R"({"file_size_bytes":5000000000,"generation":4,"line_count":12,"min_level":3,)"
              R"("path":"/log/app.log"})");
    EXPECT_EQ(log_info({}).dump(), R"({"file_size_bytes":0,"generation":0,"line_count":0,)"
                                   R"("min_level":0,"path":""})");
}

TEST(DiagnosticsJson, LinesOfALogAreAnArray) {
    EXPECT_EQ(log_read({true, "", 9, 4, 2, true, {"a \"b\"", "", "c|d"}}).dump(),
              R"({"error":"","from_line":4,"generation":2,"lines":["a \"b\"","","c|d"],)"
              R"("ok":true,"total_lines":9})");
}

TEST(DiagnosticsJson, ALogThatCannotBeReadSaysWhy) {
    EXPECT_EQ(log_read({false, "gone", 0, 0, 0, false, {}}).dump(),
              R"({"error":"gone","from_line":0,"generation":0,"lines":[],"ok":false,)"
              R"("total_lines":0})");
}

TEST(DiagnosticsJson, ADatabaseHasItsTablesAndNotItsAddress) {
    EXPECT_EQ(db_info({true, "orders", "/o.db", true, {{"t", 3, {"id", "name"}}, {"u", 0, {}}}, 9})
                  .dump(),
              R"({"loaded":true,"name":"orders","path":"/o.db","tables":[)"
              R"({"column_names":["id","name"],"name":"t","row_count":3},)"
              R"({"column_names":[],"name":"u","row_count":0}]})");
    EXPECT_EQ(db_info({}).dump(), R"({"loaded":false,"name":"","path":"","tables":[]})");
}

TEST(DiagnosticsJson, ATableLineWithoutColumnsOrWithAnOddCountIsShownAsItReads) {
    auto const reply = tessaron::database::DbInfoReply{true, "d", "p", true, {}, 0};
    auto envelope = reply.build();
    // The list is the last thing of an envelope, behind its length.
    std::string const list = "t|3|\nt|x|a,b\n\nno bars";
    envelope.resize(envelope.size() - 4);
    for (unsigned shift = 0; shift < 32; shift += 8) {
        envelope.push_back(static_cast<std::uint8_t>(list.size() >> shift));
    }
    envelope.insert(envelope.end(), list.begin(), list.end());
    EXPECT_EQ(db_info(tessaron::database::DbInfoReply::parse(envelope)).at("tables").dump(),
              R"([{"column_names":[],"name":"t","row_count":3},)"
              R"({"column_names":["a","b"],"name":"t","row_count":0}])");
}

TEST(DiagnosticsJson, RowsAreCutIntoCellsAtEachBar) {
    tessaron::database::DbTableReadReply reply{true, "", 7, 3, {"a", "b"}, {}};
    reply.rows = {"1|2", "one cell", "", "|", "a|b|with a bar", "\"q\"|\xC3\xBC"};
    EXPECT_EQ(db_table_read(reply).dump(),
              R"({"column_names":["a","b"],"error":"","from_row":3,"ok":true,"rows":[["1","2"],)"
              R"(["one cell"],[""],["",""],["a","b","with a bar"],["\"q\"",")"
              "\xC3\xBC"
              R"("]],"total_rows":7})");
}

TEST(DiagnosticsJson, ATableThatCannotBeReadSaysWhy) {
    EXPECT_EQ(db_table_read({false, "no table", 0, 0, {}, {}}).dump(),
              R"({"column_names":[],"error":"no table","from_row":0,"ok":false,"rows":[],)"
              R"("total_rows":0})");
}

TEST(DiagnosticsJson, AWriteTellsItsOutcome) {
    EXPECT_EQ(db_write_result({true, ""}).dump(), R"({"error":"","ok":true})");
    EXPECT_EQ(db_write_result({false, "locked"}).dump(), R"({"error":"locked","ok":false})");
}

} // namespace
} // namespace mirelclient::json_helpers
