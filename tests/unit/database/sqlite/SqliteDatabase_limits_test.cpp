#include "tests/unit/database/sqlite/DatabaseTest.hpp"

// How much is read at once.

namespace tessaron::database::sqlite {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

struct SqliteDatabaseLimits : test::DatabaseTest {
    void make_rows(int count, std::string const& value = "'x'") {
        run("CREATE TABLE t(id INTEGER PRIMARY KEY, a);"
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
            std::to_string(count) + ") INSERT INTO t SELECT i, " + value + " FROM n");
    }
    /// A row of that many columns, each with the value; their names have that many letters.
    void make_columns(int count, std::string const& value, std::size_t name_size = 4) {
        std::string names;
        std::string values;
        for (int i = 0; i < count; ++i) {
            std::string name = "c" + std::to_string(i);
            name.resize(std::max(name.size(), name_size), 'x');
            names += "," + name;
            values += "," + value;
        }
        run("CREATE TABLE t(id INTEGER PRIMARY KEY" + names + "); INSERT INTO t VALUES (1" +
            values + ")");
    }
};

TEST_F(SqliteDatabaseLimits, AReplyHasNoMoreRowsThanItsLimit) {
    make_rows(2500);
    EXPECT_THAT(rows("t"), SizeIs(DbServerLimits::K_MAX_ROWS));
    auto const reply = read("t", 1001, 2400);
    EXPECT_EQ(reply.total_rows, 2500U);
    EXPECT_THAT(reply.rows, SizeIs(1000));
    EXPECT_EQ(reply.rows.front(), "1001|x");
    EXPECT_EQ(reply.rows.back(), "2000|x");
    EXPECT_THAT(rows("t", 2001), SizeIs(500));
}

TEST_F(SqliteDatabaseLimits, AReplyHasNoMoreBytesThanItsLimit) {
    make_rows(10, "'0123456789'");
    limits.max_reply_size = 50; // names, and "1|0123456789" three times
    auto const reply = read("t", 2);
    EXPECT_THAT(reply.rows, ElementsAre("2|0123456789", "3|0123456789", "4|0123456789"));
    EXPECT_EQ(reply.total_rows, 10U);
}

TEST_F(SqliteDatabaseLimits, ACellThatIsTooLongIsCutBetweenCharactersAndMarked) {
    limits.max_cell_size = 6;
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a); INSERT INTO t VALUES (1, '123456'), "
        "(2, '1234567'), (3, '12345äöü'), (4, 'äöü'), (5, x'010203'), (6, x'01020304')");
    EXPECT_THAT(rows("t"), ElementsAre("1|123456", "2|123456…", "3|12345…", "4|äöü", "5|X'010203'",
                                       "6|X'010203…'"));
}

TEST_F(SqliteDatabaseLimits, ACellThatIsShownCutIsNotWritten) {
    limits.max_cell_size = 6;
    run("CREATE TABLE t(id INTEGER PRIMARY KEY, a); INSERT INTO t VALUES (1, '1234567'), "
        "(2, '123456')");
    EXPECT_EQ(edit("t", 1, 1, "x"), "the value is longer than what is shown of it");
    EXPECT_EQ(edit("t", 2, 1, "much longer than it was"), "");
}

TEST_F(SqliteDatabaseLimits, AnyRowFitsIntoAReply) {
    make_columns(1900, "printf('%.*c', 5000, 'x')");
    auto const reply = read("t");
    ASSERT_THAT(reply.rows, SizeIs(1));
    EXPECT_LE(reply.build().size(), std::size_t{0x100000});
    EXPECT_GT(reply.rows.front().size(), std::size_t{900'000});
}

TEST_F(SqliteDatabaseLimits, LongNamesOfColumnsTakeTheRoomOfRows) {
    make_columns(1900, "printf('%.*c', 5000, 'x')", 300);
    auto const reply = read("t");
    ASSERT_THAT(reply.rows, SizeIs(1));
    EXPECT_LE(reply.build().size(), std::size_t{0x100000});
    EXPECT_THAT(open().tables(), SizeIs(1));
}

TEST_F(SqliteDatabaseLimits, ATableWhoseColumnsDoNotFitIsLeftOutAndNotRead) {
    make_columns(1900, "1", 600);
    run("CREATE TABLE u(a)");
    EXPECT_THAT(open().tables(), ElementsAre(DbTableInfo{"u", 0, {"rowid", "a"}}));
    EXPECT_EQ(refusal_of([&] { read("t"); }), "the columns of \"t\" have too long names");
}

TEST_F(SqliteDatabaseLimits, RowsAreCountedUpToTheLimit) {
    make_rows(20);
    run("CREATE TABLE u(a); INSERT INTO u VALUES (1)");
    limits.max_counted_rows = 19;
    EXPECT_EQ(read("t").total_rows, 19U);
    EXPECT_THAT(read("t", 20).rows, ElementsAre("20|x"));
    EXPECT_THAT(open().tables(), ElementsAre(DbTableInfo{"t", 19, {"id", "a"}},
                                             DbTableInfo{"u", 1, {"rowid", "a"}}));
}

TEST_F(SqliteDatabaseLimits, ATableThatCannotBeCountedInTimeIsListedWithWhatWas) {
    make_rows(200'000);
    run("CREATE TABLE u(a); INSERT INTO u VALUES (1)");
    limits.time_limit = std::chrono::milliseconds(0);
    auto const listed = open().tables();
    ASSERT_THAT(listed, SizeIs(2));
    EXPECT_GT(listed[0].row_count, 0U);
    EXPECT_LT(listed[0].row_count, 200'000U);
    EXPECT_EQ(listed[1].row_count, 1U);
}

TEST_F(SqliteDatabaseLimits, WhatTakesTooLongIsUndone) {
    make_rows(100'000);
    run("CREATE TRIGGER slow BEFORE DELETE ON t BEGIN SELECT (WITH RECURSIVE n(i) AS (SELECT 1 "
        "UNION ALL SELECT i + 1 FROM n) SELECT max(i) FROM n); END");
    limits.time_limit = std::chrono::milliseconds(20);
    EXPECT_EQ(remove("t", 1), "the database took too long");
    EXPECT_EQ(refusal_of([&] { open().clear_table("t"); }), "the database took too long");
    EXPECT_EQ(run("SELECT count(*) FROM t"), "100000");
}

} // namespace
} // namespace tessaron::database::sqlite
