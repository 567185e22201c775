#include "database/sqlite/sqlite_table.hpp"

#include "tests/unit/database/sqlite/SqliteFile.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::database::sqlite {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct SqliteTableTest : testing::Test {
    SqliteTable table(std::string const& declaration) {
        database.file.run("DROP TABLE IF EXISTS t; CREATE TABLE t" + declaration);
        return find_table(connection, "t").value();
    }
    std::vector<std::string> names() {
        std::vector<std::string> names;
        for (auto const& table : list_tables(connection)) {
            names.push_back(table.name);
        }
        return names;
    }
    /// How SQLite goes about it.
    std::string plan(std::string const& sql) {
        SqliteStatement statement(connection, "EXPLAIN QUERY PLAN " + sql);
        std::string plan;
        while (statement.step()) {
            plan += std::string(statement.text(3)) + ";";
        }
        return plan;
    }

    test::FreshDatabase database;
    SqliteConnection connection{database.file.path, std::chrono::milliseconds(1),
                                SqliteConnection::Clock::now() + std::chrono::hours(1)};
};

SqliteColumn key(std::string const& name) {
    return {name, true};
}

SqliteColumn plain(std::string const& name) {
    return {name, false};
}

TEST_F(SqliteTableTest, ATableThatBeginsWithItsKeyIsShownAsItIs) {
    auto const numbered = table("(id INTEGER PRIMARY KEY, name)");
    EXPECT_THAT(numbered.columns, ElementsAre(key("id"), plain("name")));
    EXPECT_THAT(numbered.key, ElementsAre("rowid"));
    auto const named = table("(name TEXT PRIMARY KEY, value)");
    EXPECT_THAT(named.columns, ElementsAre(key("name"), plain("value")));
    EXPECT_THAT(named.key, ElementsAre("rowid"));
}

TEST_F(SqliteTableTest, TheRowsNumberStandsBeforeColumnsThatDoNotBeginWithAKey) {
    EXPECT_THAT(table("(name, value)").columns,
                ElementsAre(key("rowid"), plain("name"), plain("value")));
    EXPECT_THAT(table("(name, id INTEGER PRIMARY KEY)").columns,
                ElementsAre(key("rowid"), plain("name"), key("id")));
}

TEST_F(SqliteTableTest, TheRowsNumberHasAnotherNameWhereAColumnHasTaken) {
    EXPECT_THAT(table("(RowID)").key, ElementsAre("_rowid_"));
    EXPECT_THAT(table("(rowid, _ROWID_)").key, ElementsAre("oid"));
    auto const hidden = table("(rowid, _rowid_, oid)");
    EXPECT_THAT(hidden.key, IsEmpty());
    EXPECT_THAT(hidden.columns, ElementsAre(plain("rowid"), plain("_rowid_"), plain("oid")));
    EXPECT_NO_THROW(SqliteStatement(connection, hidden.select({"oid"})));
}

TEST_F(SqliteTableTest, WithoutNumbersRowsAreToldApartByTheirWholeKey) {
    auto const in_order = table("(a, b, c, PRIMARY KEY(a, c)) WITHOUT ROWID");
    EXPECT_THAT(in_order.columns, ElementsAre(key("a"), plain("b"), key("c")));
    EXPECT_THAT(in_order.key, ElementsAre("a", "c"));
    auto const moved = table("(x, a, y, b, PRIMARY KEY(b, a)) WITHOUT ROWID");
    EXPECT_THAT(moved.columns, ElementsAre(key("a"), key("b"), plain("x"), plain("y")));
    EXPECT_THAT(moved.key, ElementsAre("b", "a"));
}

TEST_F(SqliteTableTest, RowsAreReadAndFoundWithoutSorting) {
    for (std::string const declaration : {"(id INTEGER PRIMARY KEY, a UNIQUE)", "(a, b)",
                                          "(a, b, PRIMARY KEY(b, a)) WITHOUT ROWID"}) {
        auto const shown = table(declaration);
        std::string const reading = plan(shown.select({"a"}) + " LIMIT 5 OFFSET 7");
        EXPECT_EQ(reading, "SCAN main.t;") << declaration;
        std::string const writing = plan("DELETE FROM t" + shown.where_key());
        EXPECT_THAT(writing, testing::StartsWith("SEARCH t USING ")) << declaration;
    }
}

TEST_F(SqliteTableTest, GeneratedColumnsAreShown) {
    EXPECT_THAT(table("(id INTEGER PRIMARY KEY, a, b AS (a * 2), c AS (a * 3) STORED)").columns,
                ElementsAre(key("id"), plain("a"), plain("b"), plain("c")));
}

TEST_F(SqliteTableTest, NamesThatWouldBreakAListAreShownWithBlanks) {
    auto const shown = table("(id INTEGER PRIMARY KEY, \"a,b\nc|d\")");
    EXPECT_THAT(shown.shown_column_names(), ElementsAre("id", "a b c|d"));
    EXPECT_EQ(shown.columns.back().name, "a,b\nc|d");
}

TEST_F(SqliteTableTest, ATableWhoseNameWouldBreakAListIsLeftOut) {
    database.file.run("CREATE TABLE good(a); CREATE TABLE \"a|b\"(a); CREATE TABLE \"a\nb\"(a);"
                      "CREATE TABLE \"it's \"\"quoted\"\"; --\"(a); CREATE TABLE \"\"(a)");
    EXPECT_THAT(names(), ElementsAre("", "good", "it's \"quoted\"; --"));
    EXPECT_FALSE(find_table(connection, "a|b"));
    EXPECT_TRUE(find_table(connection, ""));
    EXPECT_TRUE(find_table(connection, "it's \"quoted\"; --"));
}

TEST_F(SqliteTableTest, OnlyTablesOfTheApplicationsOwnAreListed) {
    database.file.run(
        "CREATE TABLE t(id INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO t VALUES (1);"
        "CREATE VIEW v AS SELECT * FROM t; CREATE VIEW broken AS SELECT * FROM gone;"
        "CREATE VIRTUAL TABLE words USING fts5(text); ANALYZE");
    EXPECT_THAT(names(), ElementsAre("t"));
    for (std::string const name :
         {"v", "broken", "words", "words_data", "sqlite_sequence", "sqlite_schema", "T", "t "}) {
        EXPECT_FALSE(find_table(connection, name)) << name;
    }
}

TEST_F(SqliteTableTest, AFileWithNothingInItHasNoTables) {
    EXPECT_THAT(names(), IsEmpty());
}

} // namespace
} // namespace tessaron::database::sqlite
