#include "database/DbClient.hpp"

#include "proto/bus/discovery_records.hpp"
#include "tests/support/bus_answers.hpp"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using database::DbClearTableRequest;
using database::DbDeleteRowRequest;
using database::DbEditCellRequest;
using database::DbInfoReply;
using database::DbTableReadReply;
using database::DbTableReadRequest;
using database::DbWriteReply;
using database::K_NOT_ADDRESSED;
using std::chrono::milliseconds;
using test::Collected;
using test::HubNode;
using test::K_LONG;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// All nodes of a bus that has one domain.
constexpr std::uint32_t K_DOMAIN = 0;
/// For answers that are awaited to the end of the time, which comes whether they are there or not.
constexpr milliseconds K_WHOLE_TIME{200};

DbWriteReply refusal(std::string const& error) {
    return {false, error};
}

/// Two applications that may have databases, and one that asks.
class DbClientTest : public testing::Test {
protected:
    DbClientTest() {
        one.join();
        two.join();
        node.join();
        client = DbClient::create(node.hub, 4200, {"db_browser", K_DOMAIN});
    }

    /// Answers, and shows what was asked.
    template <typename Reply>
    static void answer(HubNode& application, std::string const& topic, Reply const& reply,
                       Collected<test::Bytes> const& asked = {}) {
        test::answer(application.hub, topic, reply, asked);
    }
    /// What is listed, once there is something of all who answer.
    static std::vector<DbInfoReply> list(DbClient& client, std::size_t count) {
        std::vector<DbInfoReply> all;
        test::wait_until(
            [&] {
                all = client.query_all_db_info(K_WHOLE_TIME);
                return all.size() >= count;
            },
            "the databases are listed");
        return all;
    }
    /// Of itself, to one that asks.
    proto::bus::TopicsAndRoles what_the_node_tells() {
        test::RawNode peer(bus, 9);
        peer.join();
        peer.send(test::MessageType::DISCOVERY_REQUEST, 200, {}, "", 1);
        proto::bus::TopicsAndRoles told;
        test::wait_until(
            [&] {
                for (auto const& frame : peer.heard(test::MessageType::DISCOVERY_RESPONSE)) {
                    if (frame.dest == 9) {
                        told = proto::bus::decode_topics_and_roles_after_identity(frame.data);
                        return true;
                    }
                }
                return false;
            },
            "the node answers");
        return told;
    }
    static DbInfoReply info(std::string const& name) { return {true, name, "/" + name, true, {}}; }

    test::LoopbackBus bus;
    HubNode one{bus, 300, "one"};
    HubNode two{bus, 400, "two"};
    HubNode node{bus, 200, "node"};
    std::shared_ptr<DbClient> client;
};

TEST_F(DbClientTest, ItIsANodeOfItsOwn) {
    EXPECT_EQ(client->address(), 4200U);
    auto const told = what_the_node_tells();
    ASSERT_THAT(told.modules, SizeIs(1));
    EXPECT_EQ(told.modules.front().address, 4200U);
    EXPECT_EQ(told.modules.front().name, "db_browser");
    EXPECT_THAT(told.modules.front().topics, IsEmpty()); // It has a target.
}

TEST_F(DbClientTest, WithoutATargetItLetsTheBusLearnWhoHasDatabases) {
    auto const other = DbClient::create(node.hub, 4201);
    auto const told = what_the_node_tells();
    ASSERT_THAT(told.subscriptions, SizeIs(1));
    EXPECT_EQ(told.subscriptions.front().name, "db.*");
    EXPECT_EQ(told.subscriptions.front().description,
              "Priming providers_for() so db.info/db.table.read calls take the fast path");
}

TEST_F(DbClientTest, WithoutATargetEverybodyIsAsked) {
    answer(one, "db.info", info("first"));
    auto const other = DbClient::create(node.hub, 4201);
    EXPECT_THAT(list(*other, 1), SizeIs(1));
}

TEST_F(DbClientTest, DiscoveryAsksEverybodyWhoTheyAre) {
    test::RawNode peer(bus, 9);
    peer.join();
    client->discover();
    EXPECT_TRUE(peer.wait_for(test::MessageType::DISCOVERY_REQUEST, 1, "the client asks"));
}

TEST_F(DbClientTest, EveryDatabaseOfADomainIsListedWithItsNodesAddress) {
    Collected<test::Bytes> asked;
    answer(two, "db.info", info("second"));
    answer(one, "db.info", info("first"), asked);
    auto const all = list(*client, 2);
    ASSERT_THAT(all, SizeIs(2));
    EXPECT_EQ(all[0].name, "first");
    EXPECT_EQ(all[0].source, 300U);
    EXPECT_EQ(all[1].name, "second");
    EXPECT_EQ(all[1].source, 400U);
    EXPECT_EQ(asked.all().at(0), test::Bytes(8, 0));
}

TEST_F(DbClientTest, OneThatIsNotLoadedIsListedAndOneThatRefusesIsNot) {
    auto unloaded = info("first");
    unloaded.loaded = false;
    answer(one, "db.info", unloaded);
    auto refused = info("second");
    refused.ok = false;
    answer(two, "db.info", refused);
    auto const all = list(*client, 1);
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "first");
    EXPECT_FALSE(all[0].loaded);
}

TEST_F(DbClientTest, AnAnswerThatCannotBeReadIsPassedOver) {
    auto const nonsense = [](test::Bytes const&) { return test::bytes_of("?"); };
    one.hub.serve("db.info", nonsense, "");
    one.hub.serve("db.table.read", nonsense, "");
    one.hub.serve("db.row.delete", nonsense, "");
    answer(two, "db.info", info("second"));
    answer(two, "db.table.read", DbTableReadReply{true, "", 1, 1, {"a"}, {"x"}});
    answer(two, "db.row.delete", DbWriteReply());
    EXPECT_THAT(list(*client, 1), SizeIs(1));
    EXPECT_TRUE(client->read_table_rows("second", "t", 1, 0, K_LONG));
    EXPECT_TRUE(client->delete_row("second", "t", 1, K_LONG));
}

TEST_F(DbClientTest, ATargetMayBeOneNode) {
    answer(one, "db.info", info("first"));
    answer(two, "db.info", info("second"));
    client->set_target(400);
    auto const all = list(*client, 1);
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "second");
}

TEST_F(DbClientTest, AReadGivesTheReplyOfWhoeverHasTheDatabase) {
    DbTableReadReply not_here;
    not_here.ok = false;
    not_here.error = K_NOT_ADDRESSED;
    Collected<test::Bytes> asked;
    answer(one, "db.table.read", not_here);
    answer(two, "db.table.read", DbTableReadReply{true, "", 7, 3, {"a", "b"}, {"1|2", "3|4"}},
           asked);
    auto const reply = client->read_table_rows("second", "t", 3, 4, K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->total_rows, 7U);
    EXPECT_EQ(reply->from_row, 3U);
    EXPECT_THAT(reply->rows, ElementsAre("1|2", "3|4"));
    auto const request = DbTableReadRequest::parse(asked.all().at(0));
    EXPECT_EQ(request.db_name, "second");
    EXPECT_EQ(request.table_name, "t");
    EXPECT_EQ(request.from_row, 3U);
    EXPECT_EQ(request.to_row, 4U);
}

TEST_F(DbClientTest, AReadThatIsRefusedIsNoReply) {
    DbTableReadReply refused;
    refused.ok = false;
    refused.error = "no table \"t\"";
    answer(one, "db.table.read", refused);
    EXPECT_FALSE(client->read_table_rows("first", "t", 1, 0, K_WHOLE_TIME));
}

TEST_F(DbClientTest, AnEditIsAnsweredByTheNodeThatItIsFor) {
    Collected<test::Bytes> asked;
    answer(one, "db.cell.edit", refusal(K_NOT_ADDRESSED));
    answer(two, "db.cell.edit", DbWriteReply(), asked);
    auto const reply = client->edit_cell("second", "t", 5, 2, "new\nvalue", K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->ok);
    auto const request = DbEditCellRequest::parse(asked.all().at(0));
    EXPECT_EQ(request.db_name, "second");
    EXPECT_EQ(request.table_name, "t");
    EXPECT_EQ(request.row_index, 5U);
    EXPECT_EQ(request.column_index, 2U);
    EXPECT_EQ(request.value, "new\nvalue");
}

TEST_F(DbClientTest, AnEditThatIsForNobodyHasNoReply) {
    answer(one, "db.cell.edit", refusal(K_NOT_ADDRESSED));
    answer(two, "db.cell.edit", refusal(K_NOT_ADDRESSED));
    EXPECT_FALSE(client->edit_cell("third", "t", 5, 2, "x", K_WHOLE_TIME));
}

TEST_F(DbClientTest, AnyOtherRefusalIsTheReply) {
    answer(one, "db.row.delete", refusal(K_NOT_ADDRESSED));
    answer(two, "db.row.delete", refusal("Not addressed to this db"));
    auto const reply = client->delete_row("second", "t", 1, K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->ok);
    EXPECT_EQ(reply->error, "Not addressed to this db");
}

TEST_F(DbClientTest, ADeletionAndAClearingNameTheirTable) {
    Collected<test::Bytes> rows;
    Collected<test::Bytes> tables;
    answer(one, "db.row.delete", DbWriteReply(), rows);
    answer(one, "db.table.clear", DbWriteReply(), tables);
    EXPECT_TRUE(client->delete_row("first", "t", 9, K_LONG)->ok);
    EXPECT_TRUE(client->clear_table("first", "u", K_LONG)->ok);
    auto const row = DbDeleteRowRequest::parse(rows.all().at(0));
    EXPECT_EQ(row.db_name, "first");
    EXPECT_EQ(row.table_name, "t");
    EXPECT_EQ(row.row_index, 9U);
    auto const table = DbClearTableRequest::parse(tables.all().at(0));
    EXPECT_EQ(table.db_name, "first");
    EXPECT_EQ(table.table_name, "u");
}

TEST_F(DbClientTest, WhereNobodyHasADatabaseThereIsNothing) {
    EXPECT_THAT(client->query_all_db_info(milliseconds(5)), IsEmpty());
    EXPECT_FALSE(client->read_table_rows("first", "t", 1, 0, milliseconds(5)));
    EXPECT_FALSE(client->clear_table("first", "t", milliseconds(5)));
    EXPECT_EQ(K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT, milliseconds(500));
}

TEST_F(DbClientTest, AStopEndsWhoeverWaitsAndFurtherQuestions) {
    std::chrono::hours const for_ever(1);
    auto waiting =
        std::async(std::launch::async, [&] { return client->clear_table("first", "t", for_ever); });
    client->request_stop();
    EXPECT_FALSE(waiting.get());
    EXPECT_THAT(client->query_all_db_info(for_ever), IsEmpty());
    EXPECT_FALSE(client->read_table_rows("first", "t", 1, 0, for_ever));
}

} // namespace
} // namespace tessaron
