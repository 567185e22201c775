#include "database/sqlite/SqliteConnection.hpp"

#include "tests/unit/database/sqlite/SqliteFile.hpp"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::database::sqlite {
namespace {

using namespace std::chrono_literals;
using test::FreshDatabase;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// For one that is not to be reached.
SqliteConnection::Clock::time_point late() {
    return SqliteConnection::Clock::now() + 1h;
}

struct SqliteConnectionTest : testing::Test {
    FreshDatabase database;
    SqliteConnection connection{database.file.path, 1ms, late()};
};

TEST_F(SqliteConnectionTest, AFileThatIsNotThereIsNotMade) {
    std::string const path = database.directory / "none.db";
    EXPECT_THAT([&] { SqliteConnection(path, 1ms, late()); },
                ThrowsMessage<SqliteError>("unable to open database file"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SqliteConnectionTest, ValuesOfAnyTypeAndBytesAreBoundAsTheyAre) {
    std::string const text("a'\"; DROP TABLE t --\0\xFF", 23);
    SqliteStatement statement(connection, "SELECT ?, ?, ?, ?, NULL, x'00FF'");
    statement.bind(text).bind(std::string_view()).bind(std::int64_t{-5}).bind(2.5);
    ASSERT_TRUE(statement.step());
    EXPECT_EQ(statement.text(0), text);
    EXPECT_EQ(statement.type(1), CellType::TEXT);
    EXPECT_EQ(statement.text(1), "");
    EXPECT_EQ(statement.type(2), CellType::INTEGER);
    EXPECT_EQ(statement.integer(2), -5);
    EXPECT_EQ(statement.type(3), CellType::REAL);
    EXPECT_EQ(statement.type(4), CellType::NONE);
    EXPECT_EQ(statement.text(4), "");
    EXPECT_EQ(statement.type(5), CellType::BLOB);
    EXPECT_EQ(statement.blob(5), std::string_view("\0\xFF", 2));
    auto const copy = statement.value(5);
    EXPECT_FALSE(statement.step());
    SqliteStatement other(connection, "SELECT typeof(?1)");
    other.bind(copy);
    ASSERT_TRUE(other.step());
    EXPECT_EQ(other.text(0), "blob");
}

TEST_F(SqliteConnectionTest, AQuotedNameIsOneNameWhateverIsInIt) {
    EXPECT_EQ(quote_name("a\"b"), "\"a\"\"b\"");
    std::string const hostile = "t\"; DROP TABLE u; -- ' ] ` é";
    connection.execute("CREATE TABLE u(a)");
    connection.execute(("CREATE TABLE " + quote_name(hostile) + "(a)").c_str());
    EXPECT_EQ(database.file.run("SELECT name FROM sqlite_schema WHERE name <> 'u'"), hostile);
    EXPECT_EQ(database.file.run("SELECT count(*) FROM u"), "0");
}

TEST_F(SqliteConnectionTest, AQuotedNameOfNoColumnIsNoText) {
    connection.execute("CREATE TABLE t(a)");
    EXPECT_THAT([&] { SqliteStatement(connection, "SELECT \"b\" FROM t"); },
                ThrowsMessage<SqliteError>("no such column: b"));
}

TEST_F(SqliteConnectionTest, WhatIsNotCommittedIsUndone) {
    connection.execute("CREATE TABLE t(a)");
    {
        SqliteTransaction transaction(connection, SqliteTransaction::Kind::WRITE);
        connection.execute("INSERT INTO t VALUES (1)");
    }
    EXPECT_EQ(database.file.run("SELECT count(*) FROM t"), "0");
    {
        SqliteTransaction transaction(connection, SqliteTransaction::Kind::WRITE);
        connection.execute("INSERT INTO t VALUES (1)");
        EXPECT_EQ(connection.changed_rows(), 1);
        transaction.commit();
    }
    EXPECT_EQ(database.file.run("SELECT count(*) FROM t"), "1");
}

TEST_F(SqliteConnectionTest, ATransactionThatEndedByAFailureIsLeftAtThat) {
    connection.execute("CREATE TABLE t(a UNIQUE ON CONFLICT ROLLBACK); INSERT INTO t VALUES (1)");
    {
        SqliteTransaction transaction(connection, SqliteTransaction::Kind::WRITE);
        EXPECT_THROW(connection.execute("INSERT INTO t VALUES (1)"), SqliteError);
    }
    EXPECT_NO_THROW(connection.execute("INSERT INTO t VALUES (2)"));
}

TEST_F(SqliteConnectionTest, WhoeverElseWritesIsNotWaitedForForEver) {
    database.file.run("CREATE TABLE t(a); BEGIN IMMEDIATE");
    EXPECT_THAT([&] { SqliteTransaction(connection, SqliteTransaction::Kind::WRITE); },
                ThrowsMessage<SqliteError>("database is locked"));
    database.file.run("COMMIT");
    EXPECT_NO_THROW(SqliteTransaction(connection, SqliteTransaction::Kind::WRITE));
}

TEST_F(SqliteConnectionTest, AStatementEndsWithItsTime) {
    SqliteConnection hurried(database.file.path, 1ms, SqliteConnection::Clock::now());
    SqliteStatement endless(hurried, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                                     "FROM n) SELECT max(i) FROM n");
    EXPECT_THAT([&] { endless.step(); }, ThrowsMessage<SqliteError>("the database took too long"));
}

TEST_F(SqliteConnectionTest, ForeignKeysAreHeldUp) {
    database.file.run("CREATE TABLE p(id INTEGER PRIMARY KEY); INSERT INTO p VALUES (1);"
                      "CREATE TABLE c(p REFERENCES p); INSERT INTO c VALUES (1)");
    EXPECT_THAT([&] { connection.execute("DELETE FROM p"); },
                ThrowsMessage<SqliteError>(HasSubstr("FOREIGN KEY constraint failed")));
}

TEST_F(SqliteConnectionTest, WhatIsNoDatabaseCannotBeRead) {
    std::string const path = database.directory / "text.db";
    { std::ofstream(path) << std::string(5000, 'x'); }
    SqliteConnection other(path, 1ms, late());
    EXPECT_THAT([&] { SqliteStatement(other, "SELECT 1 FROM sqlite_schema").step(); },
                ThrowsMessage<SqliteError>("file is not a database"));
}

} // namespace
} // namespace tessaron::database::sqlite
