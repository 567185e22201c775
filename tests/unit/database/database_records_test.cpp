#include "bus/Envelope.hpp"
#include "database/database_records.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace tessaron::database {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Fields = std::map<std::string, std::string>;

Bytes payload(Fields fields, std::string const& data = {}) {
    return bus::encode_envelope({std::move(fields), {data.begin(), data.end()}});
}

bus::Envelope wire(Bytes const& bytes) {
    return bus::decode_envelope(bytes);
}

std::string data_of(Bytes const& bytes) {
    auto const data = wire(bytes).data;
    return {data.begin(), data.end()};
}

/// What a reply with this data lists.
std::vector<DbTableInfo> tables_in(std::string const& data) {
    return DbInfoReply::parse(payload({{"status", "ok"}}, data)).tables;
}

TEST(DatabaseRecords, ARequestForAllDatabasesSaysNothing) {
    EXPECT_EQ(DbInfoRequest().build(), Bytes(8, 0));
    EXPECT_NO_THROW(DbInfoRequest::parse(Bytes(8, 0)));
    EXPECT_THROW(DbInfoRequest::parse({}), std::invalid_argument);
}

TEST(DatabaseRecords, ADatabaseIsToldWithATableALine) {
    DbInfoReply reply{true, "orders", "/a/b.db", true, {}, 7};
    reply.tables = {{"t", 3, {"id", "name"}}, {"empty one", 0, {}}};
    auto const bytes = reply.build();
    EXPECT_THAT(wire(bytes).fields, ElementsAre(Pair("loaded", "1"), Pair("name", "orders"),
                                                Pair("path", "/a/b.db"), Pair("status", "ok")));
    EXPECT_EQ(data_of(bytes), "t|3|id,name\nempty one|0|");
    auto const read = DbInfoReply::parse(bytes);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(read.name, "orders");
    EXPECT_EQ(read.path, "/a/b.db");
    EXPECT_TRUE(read.loaded);
    EXPECT_EQ(read.tables, reply.tables);
    EXPECT_EQ(read.source, 0U);
}

TEST(DatabaseRecords, ATableLineWithNothingBehindItsCountHasNoColumns) {
    EXPECT_THAT(tables_in("t|3|"), ElementsAre(DbTableInfo{"t", 3, {}}));
}

TEST(DatabaseRecords, ACountThatIsNoNumberIsZero) {
    for (std::string const count : {"x", "", "-1", "3 ", "99999999999999999999"}) {
        EXPECT_THAT(tables_in("t|" + count + "|a,b"), ElementsAre(DbTableInfo{"t", 0, {"a", "b"}}))
            << count;
    }
    EXPECT_THAT(tables_in("t|18446744073709551615|a"),
                ElementsAre(DbTableInfo{"t", 18446744073709551615U, {"a"}}));
}

TEST(DatabaseRecords, ALineThatIsNoTableIsPassedOver) {
    EXPECT_THAT(tables_in("\nalone\none|1\n\nt|1|a\n"), ElementsAre(DbTableInfo{"t", 1, {"a"}}));
    EXPECT_THAT(tables_in(""), IsEmpty());
}

TEST(DatabaseRecords, BarsBehindTheSecondBelongToTheColumns) {
    EXPECT_THAT(tables_in("t|1|a|b,,c"), ElementsAre(DbTableInfo{"t", 1, {"a|b", "", "c"}}));
}

TEST(DatabaseRecords, LoadedIsExactlyOne) {
    for (std::string const text : {"true", "0", "", "01", "1 ", "yes"}) {
        EXPECT_FALSE(DbInfoReply::parse(payload({{"loaded", text}})).loaded) << text;
    }
    EXPECT_FALSE(DbInfoReply::parse(payload({})).loaded);
    EXPECT_TRUE(DbInfoReply::parse(payload({{"loaded", "1"}})).loaded);
}

TEST(DatabaseRecords, AReplyIsOkForExactlyThatText) {
    for (std::string const text : {"OK", "ok ", "error", "", "true"}) {
        Bytes const bytes = payload({{"status", text}});
        EXPECT_FALSE(DbInfoReply::parse(bytes).ok) << text;
        EXPECT_FALSE(DbTableReadReply::parse(bytes).ok) << text;
        EXPECT_FALSE(DbWriteReply::parse(bytes).ok) << text;
    }
    EXPECT_FALSE(DbWriteReply::parse(payload({})).ok);
    EXPECT_TRUE(DbWriteReply::parse(payload({{"status", "ok"}})).ok);
}

TEST(DatabaseRecords, AReadNamesItsTableAndRows) {
    auto const bytes = DbTableReadRequest{"orders", "t", 5, 0}.build();
    EXPECT_THAT(wire(bytes).fields, ElementsAre(Pair("db_name", "orders"), Pair("from_row", "5"),
                                                Pair("table_name", "t"), Pair("to_row", "0")));
    EXPECT_EQ(data_of(bytes), "");
    auto const read = DbTableReadRequest::parse(bytes);
    EXPECT_EQ(read.db_name, "orders");
    EXPECT_EQ(read.table_name, "t");
    EXPECT_EQ(read.from_row, 5U);
    EXPECT_EQ(read.to_row, 0U);
}

TEST(DatabaseRecords, RowsTravelALineEachAndStayWhole) {
    DbTableReadReply const reply{true, "", 9, 4, {"id", "text"}, {"1|a|b", "", "2|c"}};
    auto const bytes = reply.build();
    EXPECT_THAT(wire(bytes).fields, ElementsAre(Pair("columns", "id,text"), Pair("from_row", "4"),
                                                Pair("status", "ok"), Pair("total_rows", "9")));
    EXPECT_EQ(data_of(bytes), "1|a|b\n\n2|c");
    auto const read = DbTableReadReply::parse(bytes);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(read.total_rows, 9U);
    EXPECT_EQ(read.from_row, 4U);
    EXPECT_EQ(read.column_names, reply.column_names);
    EXPECT_EQ(read.rows, reply.rows);
}

TEST(DatabaseRecords, ARefusedReadHasItsErrorAndNothingElse) {
    DbTableReadReply reply;
    reply.ok = false;
    reply.error = "no table \"x\"";
    auto const read = DbTableReadReply::parse(reply.build());
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error, "no table \"x\"");
    EXPECT_THAT(read.column_names, IsEmpty());
    EXPECT_THAT(read.rows, IsEmpty());
}

TEST(DatabaseRecords, AnEditCarriesItsValueAsData) {
    std::string const value("a\0b\n|,\xFF", 7);
    auto const bytes =
        DbEditCellRequest{"orders", "t", 18446744073709551615U, 4294967295U, value}.build();
    EXPECT_THAT(wire(bytes).fields,
                ElementsAre(Pair("column_index", "4294967295"), Pair("db_name", "orders"),
                            Pair("row_index", "18446744073709551615"), Pair("table_name", "t")));
    EXPECT_EQ(data_of(bytes), value);
    auto const read = DbEditCellRequest::parse(bytes);
    EXPECT_EQ(read.db_name, "orders");
    EXPECT_EQ(read.table_name, "t");
    EXPECT_EQ(read.row_index, 18446744073709551615U);
    EXPECT_EQ(read.column_index, 4294967295U);
    EXPECT_EQ(read.value, value);
}

TEST(DatabaseRecords, ADeletionNamesItsRowAndAClearingItsTable) {
    auto const row = DbDeleteRowRequest{"orders", "t", 8}.build();
    EXPECT_THAT(wire(row).fields, ElementsAre(Pair("db_name", "orders"), Pair("row_index", "8"),
                                              Pair("table_name", "t")));
    EXPECT_EQ(DbDeleteRowRequest::parse(row).row_index, 8U);
    EXPECT_EQ(DbDeleteRowRequest::parse(row).db_name, "orders");
    auto const table = DbClearTableRequest{"orders", "t"}.build();
    EXPECT_THAT(wire(table).fields,
                ElementsAre(Pair("db_name", "orders"), Pair("table_name", "t")));
    EXPECT_EQ(DbClearTableRequest::parse(table).table_name, "t");
}

TEST(DatabaseRecords, AWriteIsAnsweredByItsStatus) {
    EXPECT_THAT(wire(DbWriteReply().build()).fields, ElementsAre(Pair("status", "ok")));
    auto const bytes = DbWriteReply{false, "why not"}.build();
    EXPECT_THAT(wire(bytes).fields, ElementsAre(Pair("error", "why not"), Pair("status", "error")));
    EXPECT_EQ(DbWriteReply::parse(bytes).error, "why not");
}

TEST(DatabaseRecords, WhatIsMissingHasItsDefaultAndWhatIsUnknownIsIgnored) {
    Bytes const bytes = payload({{"unknown", "x"}}, "value");
    EXPECT_EQ(DbEditCellRequest::parse(bytes).row_index, 0U);
    EXPECT_EQ(DbEditCellRequest::parse(bytes).table_name, "");
    EXPECT_EQ(DbTableReadRequest::parse(bytes).to_row, 0U);
    EXPECT_EQ(DbTableReadReply::parse(bytes).total_rows, 0U);
}

TEST(DatabaseRecords, AnIndexThatIsNoNumberIsRefused) {
    EXPECT_THROW(DbDeleteRowRequest::parse(payload({{"row_index", "first"}})),
                 std::invalid_argument);
    EXPECT_THROW(DbEditCellRequest::parse(payload({{"column_index", "4294967296"}})),
                 std::invalid_argument);
    EXPECT_THROW(DbTableReadRequest::parse(payload({{"from_row", "-1"}})), std::invalid_argument);
    EXPECT_THROW(DbTableReadReply::parse(payload({{"total_rows", "many"}})), std::invalid_argument);
    EXPECT_THROW(DbWriteReply::parse({1, 2, 3}), std::invalid_argument);
}

} // namespace
} // namespace tessaron::database
