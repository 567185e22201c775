#include "database/sqlite/DbServer.hpp"

#include "database/DbClient.hpp"
#include "tests/support/bus_nodes.hpp"
#include "tests/unit/database/sqlite/SqliteFile.hpp"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

namespace tessaron::database::sqlite {
namespace {

using test::HubNode;
using test::K_LONG;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// How often this process has the file open.
int descriptors_of(std::string const& path) {
    int count = 0;
    std::error_code error; // Of one that is closed meanwhile.
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += std::filesystem::read_symlink(entry.path(), error) == path ? 1 : 0;
    }
    return count;
}

DbServerLimits patient() {
    DbServerLimits limits;
    limits.time_limit = std::chrono::minutes(1);
    return limits;
}

/// Two applications with a database each, and a third node that asks.
class DbServerTest : public testing::Test {
protected:
    DbServerTest() {
        one.join();
        two.join();
        node.join();
        for (test::SqliteFile* const file : {&orders, &users}) {
            file->run("PRAGMA synchronous = OFF");
        }
        orders.run(
            "CREATE TABLE t(id INTEGER PRIMARY KEY, a); INSERT INTO t VALUES (1, 'x'), (2, 'y')");
        users.run("CREATE TABLE u(id INTEGER PRIMARY KEY, b); INSERT INTO u VALUES (5, 'z')");
        client = DbClient::create(node.hub, 4200, {"db_browser", 0});
    }

    /// What all databases together say, by name.
    std::map<std::string, DbInfoReply> databases(std::size_t count) {
        std::map<std::string, DbInfoReply> all;
        test::wait_until(
            [&] {
                for (auto& info : client->query_all_db_info(std::chrono::milliseconds(200))) {
                    all[info.name] = info;
                }
                return all.size() >= count;
            },
            "all databases are listed");
        return all;
    }
    /// What one node says of its database.
    DbInfoReply info(std::uint32_t address) {
        auto const replies = client->call_or_request_to(K_INFO_TOPIC, DbInfoRequest().build(),
                                                        K_LONG, [](Bytes const&) { return true; });
        return DbInfoReply::parse(replies.at(address));
    }
    /// What a node's own answer to a request is, whoever the request is for.
    std::string error_of(std::uint32_t address, std::string const& topic, Bytes const& request) {
        client->set_target(address);
        auto const replies =
            client->call_or_request_to(topic, request, K_LONG, [](Bytes const&) { return true; });
        client->set_target(0);
        return DbWriteReply::parse(replies.at(address)).error;
    }

    test::TemporaryDirectory directory;
    test::SqliteFile orders{directory / "orders.db"};
    test::SqliteFile users{directory / "users.db"};
    test::LoopbackBus bus;
    HubNode one{bus, 300, "one"};
    HubNode two{bus, 400, "two"};
    HubNode node{bus, 200, "node"};
    std::shared_ptr<DbClient> client;
};

TEST_F(DbServerTest, EachDatabaseIsListedByTheNodeThatHasIt) {
    DbServer const first(one.hub, "one.orders", orders.path, patient());
    DbServer const second(two.hub, "two.users", users.path, patient());
    auto const all = databases(2);
    auto const& info = all.at("one.orders");
    EXPECT_EQ(info.source, 300U);
    EXPECT_EQ(info.path, orders.path);
    EXPECT_TRUE(info.loaded);
    EXPECT_THAT(info.tables, ElementsAre(DbTableInfo{"t", 2, {"id", "a"}}));
    EXPECT_EQ(all.at("two.users").source, 400U);
    EXPECT_THAT(all.at("two.users").tables, ElementsAre(DbTableInfo{"u", 1, {"id", "b"}}));
}

TEST_F(DbServerTest, ARequestGoesToTheDatabaseOfItsName) {
    DbServer const first(one.hub, "one.orders", orders.path, patient());
    DbServer const second(two.hub, "two.users", users.path, patient());
    auto const read = client->read_table_rows("two.users", "u", 1, 0, K_LONG);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->total_rows, 1U);
    EXPECT_THAT(read->column_names, ElementsAre("id", "b"));
    EXPECT_THAT(read->rows, ElementsAre("5|z"));
    EXPECT_TRUE(client->edit_cell("one.orders", "t", 2, 1, "new", K_LONG)->ok);
    EXPECT_TRUE(client->delete_row("one.orders", "t", 1, K_LONG)->ok);
    EXPECT_EQ(orders.run("SELECT * FROM t"), "2|new");
    EXPECT_TRUE(client->clear_table("one.orders", "t", K_LONG)->ok);
    EXPECT_EQ(orders.run("SELECT count(*) FROM t"), "0");
    EXPECT_EQ(users.run("SELECT * FROM u"), "5|z");
    EXPECT_THAT(one.warnings.all(), IsEmpty());
    EXPECT_THAT(two.warnings.all(), IsEmpty());
}

TEST_F(DbServerTest, WhatIsForAnotherDatabaseIsAnsweredSo) {
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    for (std::string const name : {"two.users", "", "one.orders ", "ONE.ORDERS"}) {
        EXPECT_EQ(error_of(300, K_TABLE_READ_TOPIC, DbTableReadRequest{name, "t", 1, 0}.build()),
                  K_NOT_ADDRESSED);
        EXPECT_EQ(error_of(300, K_CELL_EDIT_TOPIC, DbEditCellRequest{name, "t", 1, 1, ""}.build()),
                  K_NOT_ADDRESSED);
        EXPECT_EQ(error_of(300, K_ROW_DELETE_TOPIC, DbDeleteRowRequest{name, "t", 1}.build()),
                  K_NOT_ADDRESSED);
        EXPECT_EQ(error_of(300, K_TABLE_CLEAR_TOPIC, DbClearTableRequest{name, "t"}.build()),
                  K_NOT_ADDRESSED);
    }
    EXPECT_EQ(orders.run("SELECT * FROM t"), "1|x 2|y");
    EXPECT_FALSE(client->clear_table("two.users", "t", std::chrono::milliseconds(100)).has_value());
}

TEST_F(DbServerTest, WhatCannotBeDoneIsToldInTheReply) {
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    EXPECT_EQ(client->edit_cell("one.orders", "t", 1, 0, "7", K_LONG)->error,
              "column 0 is the primary key");
    EXPECT_EQ(client->delete_row("one.orders", "t", 9, K_LONG)->error, "no row 9 in \"t\"");
    EXPECT_EQ(client->clear_table("one.orders", "none", K_LONG)->error, "no table \"none\"");
    EXPECT_EQ(
        error_of(300, K_TABLE_READ_TOPIC, DbTableReadRequest{"one.orders", "none", 1, 0}.build()),
        "no table \"none\"");
}

TEST_F(DbServerTest, ARequestThatCannotBeReadIsAnsweredWithAnError) {
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    EXPECT_EQ(error_of(300, K_ROW_DELETE_TOPIC, test::bytes_of("?")),
              "Envelope: truncated or malformed");
    EXPECT_EQ(error_of(300, K_ROW_DELETE_TOPIC,
                       bus::encode_envelope({{{"db_name", "one.orders"}, {"row_index", "x"}}, {}})),
              "row_index is not a number: x");
    EXPECT_THAT(one.warnings.all(), IsEmpty());
}

TEST_F(DbServerTest, AnyRequestForDatabasesIsAnswered) {
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    auto const replies = client->call_or_request_to(K_INFO_TOPIC, test::bytes_of("?"), K_LONG,
                                                    [](Bytes const&) { return true; });
    EXPECT_EQ(DbInfoReply::parse(replies.at(300)).name, "one.orders");
}

TEST_F(DbServerTest, ADatabaseThatIsNotThereIsNotLoadedUntilItCame) {
    std::string const path = directory / "later.db";
    DbServer const server(one.hub, "one.later", path, patient());
    EXPECT_FALSE(info(300).loaded);
    EXPECT_TRUE(info(300).ok);
    EXPECT_EQ(info(300).name, "one.later");
    EXPECT_EQ(client->clear_table("one.later", "t", K_LONG)->error, "unable to open database file");
    EXPECT_FALSE(std::filesystem::exists(path));
    test::SqliteFile(path).run("CREATE TABLE t(a)");
    EXPECT_TRUE(info(300).loaded);
    EXPECT_THAT(info(300).tables, SizeIs(1));
}

TEST_F(DbServerTest, ADatabaseThatIsReplacedIsTheNewOne) {
    std::string const path = directory / "replaced.db";
    test::SqliteFile(path).run("CREATE TABLE old(a)");
    DbServer const server(one.hub, "one.replaced", path, patient());
    EXPECT_EQ(info(300).tables.at(0).name, "old");
    std::filesystem::remove(path);
    test::SqliteFile(path).run("CREATE TABLE new(a)");
    EXPECT_EQ(info(300).tables.at(0).name, "new");
}

TEST_F(DbServerTest, WhatIsNoDatabaseIsNotLoaded) {
    std::string const path = directory / "text.db";
    { std::ofstream(path) << std::string(5000, 'x'); }
    DbServer const server(one.hub, "one.text", path, patient());
    EXPECT_FALSE(info(300).loaded);
    EXPECT_THAT(info(300).tables, IsEmpty());
    EXPECT_EQ(client->clear_table("one.text", "t", K_LONG)->error, "file is not a database");
    DbServer const folder(two.hub, "two.folder", directory.path(), patient());
    client->set_target(400);
    EXPECT_FALSE(info(400).loaded);
}

TEST_F(DbServerTest, ARelativePathIsToldWhole) {
    DbServer const server(one.hub, "one.relative", "relative.db", patient());
    EXPECT_EQ(info(300).path, std::filesystem::current_path() / "relative.db");
}

TEST_F(DbServerTest, ADatabaseThatIsNotServedAnyMoreIsNobodys) {
    std::optional<DbServer> server(std::in_place, one.hub, "one.orders", orders.path, patient());
    EXPECT_TRUE(client->delete_row("one.orders", "t", 1, K_LONG)->ok);
    server.reset();
    EXPECT_EQ(error_of(300, K_ROW_DELETE_TOPIC, DbDeleteRowRequest{"one.orders", "t", 1}.build()),
              K_NOT_ADDRESSED);
    EXPECT_FALSE(info(300).ok);
    EXPECT_EQ(orders.run("SELECT * FROM t"), "2|y");
}

TEST_F(DbServerTest, TheServersEndWaitsForTheRequestUnderWay) {
    orders.run("CREATE TABLE log(a); CREATE TRIGGER noted AFTER DELETE ON t BEGIN "
               "INSERT INTO log VALUES (old.id); END; BEGIN EXCLUSIVE");
    DbServerLimits limits = patient();
    limits.busy_timeout = std::chrono::minutes(1);
    std::optional<DbServer> server(std::in_place, one.hub, "one.orders", orders.path, limits);
    auto const before = descriptors_of(orders.path);
    std::thread asking([&] { EXPECT_TRUE(client->delete_row("one.orders", "t", 1, K_LONG)->ok); });
    test::wait_until([&] { return descriptors_of(orders.path) > before; },
                     "the server waits for the application");
    std::thread ending([&] {
        server.reset();
        EXPECT_EQ(test::SqliteFile(orders.path).run("SELECT * FROM log"), "1");
    });
    orders.run("COMMIT");
    ending.join();
    asking.join();
}

TEST_F(DbServerTest, AReplyOfTheLargestSizeArrives) {
    orders.run("CREATE TABLE large(id INTEGER PRIMARY KEY, a); WITH RECURSIVE n(i) AS (SELECT 1 "
               "UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT INTO large SELECT i, "
               "printf('%.*c', 4000, 'x') FROM n");
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    auto const reply = client->read_table_rows("one.orders", "large", 1, 0, K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->total_rows, 500U);
    EXPECT_GT(reply->rows.size(), 200U);
    EXPECT_LT(reply->rows.size(), 500U);
    auto const next =
        client->read_table_rows("one.orders", "large", 1 + reply->rows.size(), 0, K_LONG);
    ASSERT_TRUE(next);
    EXPECT_EQ(next->from_row, 1 + reply->rows.size());
    EXPECT_THAT(next->rows.front(), HasSubstr(std::to_string(1 + reply->rows.size()) + "|x"));
}

TEST_F(DbServerTest, ItTellsTheBusWhatItServes) {
    DbServer const server(one.hub, "one.orders", orders.path, patient());
    std::map<std::string, std::string> served;
    auto const devices = one.hub.discovered_devices();
    for (auto const& topic : devices.at(300).publications) {
        served[topic.name] = topic.description;
        EXPECT_EQ(topic.kind, proto::bus::TopicKind::REQUEST) << topic.name;
    }
    for (std::string const topic :
         {"db.info", "db.table.read", "db.cell.edit", "db.row.delete", "db.table.clear"}) {
        EXPECT_THAT(served[topic], testing::Not(IsEmpty())) << topic;
    }
}

} // namespace
} // namespace tessaron::database::sqlite
