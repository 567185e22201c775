#include "tests/support/wait_until.hpp"
#include "tests/unit/database/sqlite/DatabaseTest.hpp"

#include <atomic>
#include <thread>

// What is changed in a database.

namespace tessaron::database::sqlite {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct SqliteDatabaseWrite : test::DatabaseTest {
    void make_table() {
        run("CREATE TABLE t(id INTEGER PRIMARY KEY, a); CREATE INDEX i ON t(a);"
            "INSERT INTO t VALUES (10, 'c'), (20, 'b'), (30, 'a')");
    }
    std::string content() { return run("SELECT * FROM t ORDER BY 1, 2"); }
};

TEST_F(SqliteDatabaseWrite, ACellIsWrittenInTheRowOfThatNumber) {
    make_table();
    EXPECT_EQ(edit("t", 2, 1, "it's | new\nvalue"), "");
    EXPECT_EQ(run("SELECT a FROM t WHERE id = 20"), "it's | new\nvalue");
    EXPECT_EQ(run("SELECT count(*) FROM t WHERE a IN ('a', 'c')"), "2");
}

TEST_F(SqliteDatabaseWrite, APrimaryKeyIsNotWritten) {
    make_table();
    EXPECT_EQ(edit("t", 1, 0, "11"), "column 0 is the primary key");
    EXPECT_EQ(content(), "10|c 20|b 30|a");
    run("CREATE TABLE u(a, b, c, PRIMARY KEY(a, c)); INSERT INTO u VALUES (1, 2, 3)");
    EXPECT_EQ(edit("u", 1, 2, "x"), "column 2 is the primary key");
    EXPECT_EQ(edit("u", 1, 1, "x"), "");
    run("CREATE TABLE v(rowid, _rowid_, oid); INSERT INTO v VALUES (1, 2, 3)");
    EXPECT_EQ(edit("v", 1, 0, "x"), "column 0 is the primary key");
}

TEST_F(SqliteDatabaseWrite, WhatIsNotThereIsRefused) {
    make_table();
    EXPECT_EQ(edit("t", 4, 1, "x"), "no row 4 in \"t\"");
    EXPECT_EQ(edit("t", 0, 1, "x"), "rows count from 1");
    EXPECT_EQ(edit("t", 18446744073709551615U, 1, "x"), "no row 18446744073709551615 in \"t\"");
    EXPECT_EQ(edit("t", 1, 2, "x"), "no column 2 in \"t\"");
    EXPECT_EQ(edit("t", 1, 4294967295U, "x"), "no column 4294967295 in \"t\"");
    EXPECT_EQ(remove("t", 4), "no row 4 in \"t\"");
    EXPECT_EQ(remove("t", 0), "rows count from 1");
    EXPECT_EQ(content(), "10|c 20|b 30|a");
}

TEST_F(SqliteDatabaseWrite, RowsThatCannotBeToldApartAreNotChanged) {
    run("CREATE TABLE t(rowid, _rowid_, oid); INSERT INTO t VALUES (1, 2, 3), (1, 2, 3)");
    EXPECT_EQ(edit("t", 1, 1, "x"), "the rows of \"t\" cannot be told apart");
    EXPECT_EQ(remove("t", 1), "the rows of \"t\" cannot be told apart");
    open().clear_table("t");
    EXPECT_EQ(content(), "");
}

TEST_F(SqliteDatabaseWrite, ANumberStaysANumberWhereItCan) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, i INTEGER, r REAL, x TEXT, any1, any2);"
        "INSERT INTO t VALUES (1, 5, 1.5, '5', 5, 1.5)");
    auto const types = [this] {
        return run("SELECT typeof(i), typeof(r), typeof(x), typeof(any1), typeof(any2) FROM t");
    };
    for (std::uint32_t column = 1; column <= 5; ++column) {
        EXPECT_EQ(edit("t", 1, column, "42"), "");
    }
    EXPECT_EQ(types(), "integer|real|text|integer|integer");
    EXPECT_EQ(content(), "1|42|42.0|42|42|42");
    for (std::uint32_t column = 1; column <= 5; ++column) {
        EXPECT_EQ(edit("t", 1, column, "2.5e3"), "");
    }
    EXPECT_EQ(types(), "integer|real|text|real|real"); // 2500 is an integer for the first.
    for (std::string const text : {"", "4 2", "nan", "inf", "0x10", "2.5e3x", "+1"}) {
        EXPECT_EQ(edit("t", 1, 4, text), "");
        EXPECT_EQ(run("SELECT any1, typeof(any1) FROM t"), text + "|text");
        run("UPDATE t SET any1 = 5");
    }
}

TEST_F(SqliteDatabaseWrite, ANullIsWrittenAsTextAndABlobNotAtAll) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a, b, c INTEGER);"
        "INSERT INTO t VALUES (1, NULL, x'00', NULL)");
    EXPECT_EQ(edit("t", 1, 1, ""), "");
    EXPECT_EQ(edit("t", 1, 2, "x"), "a blob cannot be written as text");
    EXPECT_EQ(edit("t", 1, 3, "7"), "");
    EXPECT_EQ(run("SELECT quote(a), quote(b), quote(c) FROM t"), "''|X'00'|7");
}

TEST_F(SqliteDatabaseWrite, ARowIsDeletedByItsNumber) {
    make_table();
    EXPECT_EQ(remove("t", 2), "");
    EXPECT_EQ(remove("t", 2), "");
    EXPECT_EQ(content(), "10|c");
}

TEST_F(SqliteDatabaseWrite, ARowWithoutANumberIsChangedByItsWholeKey) {
    run("CREATE TABLE t(a, v, b, PRIMARY KEY(a, b)) WITHOUT ROWID;"
        "INSERT INTO t VALUES (1, 'x', x'00'), (1, 'y', 'k'), (2, 'z', 'k')");
    EXPECT_THAT(rows("t"), ElementsAre("1|y|k", "1|x|X'00'", "2|z|k"));
    EXPECT_EQ(edit("t", 2, 1, "new"), "");
    EXPECT_EQ(remove("t", 1), "");
    EXPECT_EQ(run("SELECT v FROM t ORDER BY a"), "new z");
}

TEST_F(SqliteDatabaseWrite, KeysThatAColumnTakesForEqualAreDifferentRows) {
    run("CREATE TABLE t(a TEXT COLLATE NOCASE, v, PRIMARY KEY(a COLLATE BINARY)) WITHOUT ROWID;"
        "INSERT INTO t VALUES ('K', 1), ('k', 2)");
    EXPECT_THAT(rows("t"), ElementsAre("K|1", "k|2"));
    EXPECT_EQ(remove("t", 2), "");
    EXPECT_EQ(content(), "K|1");
}

TEST_F(SqliteDatabaseWrite, ATableIsClearedAndStays) {
    make_table();
    open().clear_table("t");
    EXPECT_EQ(content(), "");
    EXPECT_EQ(read("t").total_rows, 0U);
    open().clear_table("t");
}

TEST_F(SqliteDatabaseWrite, WhatTheTableForbidsIsRefusedInSQLitesWords) {
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, u UNIQUE, n NOT NULL CHECK (n <> 'bad'), g AS (n));"
        "INSERT INTO t VALUES (1, 'a', 'x'), (2, 'b', 'y')");
    EXPECT_THAT(edit("t", 1, 1, "b"), HasSubstr("UNIQUE constraint failed: t.u"));
    EXPECT_THAT(edit("t", 1, 2, "bad"), HasSubstr("CHECK constraint failed"));
    EXPECT_THAT(edit("t", 1, 3, "z"), HasSubstr("cannot UPDATE generated column"));
    run("CREATE TABLE c(t REFERENCES t); INSERT INTO c VALUES (1)");
    EXPECT_THAT(remove("t", 1), HasSubstr("FOREIGN KEY constraint failed"));
    EXPECT_THAT(refusal_of([&] { open().clear_table("t"); }),
                HasSubstr("FOREIGN KEY constraint failed"));
    EXPECT_EQ(content(), "1|a|x|x 2|b|y|y");
}

TEST_F(SqliteDatabaseWrite, ATriggerMayRefuseOrPassOverAChange) {
    make_table();
    run("CREATE TRIGGER no BEFORE DELETE ON t WHEN old.id = 10 BEGIN SELECT RAISE(ABORT, 'kept'); "
        "END; CREATE TRIGGER not_now BEFORE DELETE ON t WHEN old.id = 20 BEGIN "
        "SELECT RAISE(IGNORE); END");
    EXPECT_EQ(remove("t", 1), "kept");
    EXPECT_EQ(remove("t", 2), "the database has left the row as it is");
    EXPECT_EQ(remove("t", 3), "");
    EXPECT_EQ(content(), "10|c 20|b");
}

TEST_F(SqliteDatabaseWrite, AWriterThatStaysTooLongIsNotWaitedFor) {
    make_table();
    limits.busy_timeout = std::chrono::milliseconds(1);
    run("BEGIN EXCLUSIVE; UPDATE t SET a = 'mine'");
    EXPECT_EQ(edit("t", 1, 1, "x"), "database is locked");
    EXPECT_EQ(refusal_of([&] { read("t"); }), "database is locked");
    run("COMMIT");
    EXPECT_EQ(edit("t", 1, 1, "x"), "");
    EXPECT_EQ(content(), "10|x 20|mine 30|mine");
}

TEST_F(SqliteDatabaseWrite, AnApplicationMayWriteMeanwhile) {
    constexpr int K_CHANGES = 50;
    make_table();
    limits.busy_timeout = std::chrono::minutes(1);
    std::atomic<int> changed{0};
    std::thread application([&] {
        test::SqliteFile own(database.file.path);
        own.run("PRAGMA busy_timeout = 60000; PRAGMA synchronous = OFF");
        for (int written = 0; written < K_CHANGES; ++written) {
            own.run("INSERT INTO t(a) VALUES ('by the application')");
            // SQLite gives a lock to whoever asks at the right moment: a writer that never rests
            // could keep it for ever.
            test::wait_until([&] { return changed >= written; }, "the other has its turn");
        }
    });
    for (int i = 0; i < K_CHANGES; ++i) {
        EXPECT_EQ(edit("t", 1, 1, "value " + std::to_string(i)), "");
        EXPECT_EQ(rows("t", 1, 1).at(0), "10|value " + std::to_string(i));
        ++changed;
    }
    application.join();
    EXPECT_EQ(read("t").total_rows, 3U + K_CHANGES);
}

} // namespace
} // namespace tessaron::database::sqlite
