#include "tests/unit/database/sqlite/DatabaseTest.hpp"

#include <limits>

// What is read of a database, and how it is shown.

namespace tessaron::database::sqlite {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct SqliteDatabaseTest : test::DatabaseTest {};

constexpr std::uint64_t K_LAST = std::numeric_limits<std::uint64_t>::max();

TEST_F(SqliteDatabaseTest, TablesAreListedWithTheirRowsAndColumns) {
    run("CREATE TABLE b(id INTEGER PRIMARY KEY, name); INSERT INTO b VALUES (7, 'x'), (9, 'y');"
        "CREATE TABLE a(x)");
    EXPECT_THAT(open().tables(), ElementsAre(DbTableInfo{"a", 0, {"rowid", "x"}},
                                             DbTableInfo{"b", 2, {"id", "name"}}));
}

TEST_F(SqliteDatabaseTest, ADatabaseWithoutTablesIsEmpty) {
    EXPECT_THAT(open().tables(), IsEmpty());
}

TEST_F(SqliteDatabaseTest, RowsComeInTheOrderOfTheirNumbersWhateverTheIndexes) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a); CREATE INDEX i ON t(a);"
        "INSERT INTO t VALUES (30, 'a'), (10, 'c'), (20, 'b')");
    auto const reply = read("t");
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.total_rows, 3U);
    EXPECT_EQ(reply.from_row, 1U);
    EXPECT_THAT(reply.column_names, ElementsAre("id", "a"));
    EXPECT_THAT(reply.rows, ElementsAre("10|c", "20|b", "30|a"));
}

TEST_F(SqliteDatabaseTest, RowsWithoutNumbersComeInTheOrderOfTheirKeys) {
    run("CREATE TABLE t(v, a, b, PRIMARY KEY(b, a)) WITHOUT ROWID;"
        "INSERT INTO t VALUES ('x', 2, 'k'), ('y', 1, 'k'), ('z', 9, 'j')");
    auto const reply = read("t");
    EXPECT_THAT(reply.column_names, ElementsAre("a", "b", "v"));
    EXPECT_THAT(reply.rows, ElementsAre("9|j|z", "1|k|y", "2|k|x"));
}

TEST_F(SqliteDatabaseTest, RowsWhoseNumbersCannotBeNamedAreReadInTheirOrder) {
    run("CREATE TABLE t(rowid, _rowid_, oid); CREATE INDEX i ON t(oid, rowid, _rowid_);"
        "INSERT INTO t VALUES (1, 1, 'b'), (2, 2, 'a')");
    EXPECT_THAT(rows("t"), ElementsAre("1|1|b", "2|2|a"));
}

TEST_F(SqliteDatabaseTest, RowsCountFromOneAndBothEndsAreIncluded) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES (11), (12), (13), (14)");
    EXPECT_THAT(rows("t", 2, 3), ElementsAre("12", "13"));
    EXPECT_THAT(rows("t", 1, 1), ElementsAre("11"));
    EXPECT_THAT(rows("t", 3, 0), ElementsAre("13", "14"));
    EXPECT_THAT(rows("t", 0, 2), ElementsAre("11", "12"));
    EXPECT_THAT(rows("t", 0, 0), ElementsAre("11", "12", "13", "14"));
    EXPECT_THAT(rows("t", 4, K_LAST), ElementsAre("14"));
    EXPECT_EQ(read("t", 0, 2).from_row, 1U);
}

TEST_F(SqliteDatabaseTest, BehindTheEndThereAreNoRowsButTheTotal) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES (11), (12)");
    for (auto const& [from, to] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {3, 0}, {3, 9}, {2, 1}, {K_LAST, K_LAST}, {K_LAST, 0}}) {
        auto const reply = read("t", from, to);
        EXPECT_THAT(reply.rows, IsEmpty()) << from << " to " << to;
        EXPECT_EQ(reply.total_rows, 2U);
        EXPECT_EQ(reply.from_row, from);
    }
}

TEST_F(SqliteDatabaseTest, AnEmptyTableHasItsColumns) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a)");
    auto const reply = read("t");
    EXPECT_EQ(reply.total_rows, 0U);
    EXPECT_THAT(reply.column_names, ElementsAre("id", "a"));
    EXPECT_THAT(reply.rows, IsEmpty());
}

TEST_F(SqliteDatabaseTest, EveryTypeIsShownAsText) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a, b, c, d, e);"
        "INSERT INTO t VALUES (1, -5, 2.5, 'text', NULL, x'00ff10'), (2, '', x'', 1e300, 'NULL', "
        "'')");
    EXPECT_THAT(rows("t"), ElementsAre("1|-5|2.5|text||X'00FF10'", "2||X''|1.0e+300|NULL|"));
}

TEST_F(SqliteDatabaseTest, ABarTravelsAsItIsAndALineBreakAsABlank) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a); INSERT INTO t VALUES (1, 'a|b'),"
        "(2, 'c' || char(10) || 'd' || char(13) || 'e')");
    EXPECT_THAT(rows("t"), ElementsAre("1|a|b", "2|c d e"));
}

TEST_F(SqliteDatabaseTest, HostileNamesAreNamesAndNothingElse) {
    std::string const name = "x\"; DROP TABLE t; -- '";
    run("CREATE TABLE t(a); CREATE TABLE " + quote_name(name) + "(" + quote_name("c\" FROM t; --") +
        ", 'select'); INSERT INTO " + quote_name(name) + " VALUES ('1', '2')");
    EXPECT_THAT(rows(name), ElementsAre("1|1|2"));
    EXPECT_EQ(edit(name, 1, 1, "'); DROP TABLE t; --"), "");
    EXPECT_THAT(rows(name), ElementsAre("1|'); DROP TABLE t; --|2"));
    EXPECT_EQ(remove(name, 1), "");
    open().clear_table(name);
    EXPECT_EQ(run("SELECT count(*) FROM t"), "0");
}

TEST_F(SqliteDatabaseTest, WhatIsNoTableIsRefused) {
    run("CREATE TABLE t(a); CREATE VIEW v AS SELECT 1");
    for (std::string const name : {"none", "v", "sqlite_schema", "t; DROP TABLE t", "\"t\""}) {
        std::string const expected = "no table \"" + name + "\"";
        EXPECT_EQ(refusal_of([&] { read(name); }), expected);
        EXPECT_EQ(edit(name, 1, 1, "x"), expected);
        EXPECT_EQ(remove(name, 1), expected);
        EXPECT_EQ(refusal_of([&] { open().clear_table(name); }), expected);
    }
}

TEST_F(SqliteDatabaseTest, AnApplicationThatWritesWithALogIsReadWhileItDoes) {
    run("PRAGMA journal_mode = WAL; CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES "
        "(1);"
        "BEGIN IMMEDIATE; INSERT INTO t VALUES (2)");
    EXPECT_THAT(rows("t"), ElementsAre("1"));
    run("COMMIT");
    EXPECT_THAT(rows("t"), ElementsAre("1", "2"));
}

} // namespace
} // namespace tessaron::database::sqlite
