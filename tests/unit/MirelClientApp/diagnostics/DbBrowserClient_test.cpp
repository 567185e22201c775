#include "MirelClientApp/diagnostics/DbBrowserClient.hpp"

#include "tests/unit/MirelClientApp/diagnostics/DiagnosticsTest.hpp"

#include <atomic>
#include <gmock/gmock.h>
#include <thread>

namespace mirelclient::test {
namespace {

using tessaron::database::DbInfoReply;
using tessaron::database::DbTableReadReply;
using tessaron::database::DbWriteReply;
using tessaron::database::K_NOT_ADDRESSED;
using tessaron::test::answer;
using tessaron::test::topic_hash;
using testing::ElementsAre;

DbInfoReply info(std::string const& name) {
    return {true, name, "/" + name, true, {{"t", 3, {"a", "b"}}}, 0};
}

/// Two applications that may have databases, and who browses them.
class DbBrowserClientTest : public DiagnosticsTest {
protected:
    DbBrowserClientTest() {
        shop.join();
        club.join();
        browser.emplace(own.hub, 4200, start_and_find({"shop", "club"}));
    }
    /// One round of answers may be missed on a busy machine.
    template <typename Operation>
    auto result_of(Operation const& operation) {
        auto result = operation();
        wait_until([&] { return result || (result = operation()).has_value(); },
                   "the database answers");
        return result;
    }

    HubNode shop{bus, 300, "shop"};
    HubNode club{bus, 400, "club"};
    std::optional<DbBrowserClient> browser;
};

TEST_F(DbBrowserClientTest, OfTwoPackagesEachHasItsOwnDatabase) {
    answer(shop.hub, "db.info", info("orders"));
    answer(club.hub, "db.info", info("members"));
    auto const orders = result_of([&] { return browser->list_tables("shop"); });
    EXPECT_EQ(orders->name, "orders");
    EXPECT_EQ(orders->path, "/orders");
    EXPECT_TRUE(orders->loaded);
    EXPECT_EQ(orders->source, 300U);
    EXPECT_THAT(orders->tables, ElementsAre(tessaron::database::DbTableInfo{"t", 3, {"a", "b"}}));
    EXPECT_EQ(result_of([&] { return browser->list_tables("club"); })->name, "members");
}

TEST_F(DbBrowserClientTest, ADatabaseOfAModuleIsItsNodes) {
    RawNode depot(bus, 500);
    depot.on_frame = [&depot](tessaron::bus::WireFrame const& asked) {
        if (asked.type == MessageType::REQUEST && asked.topic_id == topic_hash("db.info")) {
            tessaron::bus::WireFrame reply;
            reply.type = MessageType::RESPONSE;
            reply.dest = 4200;
            reply.msg_id = asked.msg_id;
            reply.origin = proto::bus::Origin(0, 4321);
            depot.send(reply, info("stock").build());
        }
    };
    depot.join();
    proto::bus::TopicsAndRoles content;
    content.modules.push_back({4321, "store", {}});
    depot.announce("depot", content);
    answer(shop.hub, "db.info", info("orders"));
    wait_until_discovered("depot");
    auto const stock = result_of([&] { return browser->list_tables("depot"); });
    ASSERT_TRUE(stock);
    EXPECT_EQ(stock->name, "stock");
    EXPECT_EQ(stock->source, 4321U);
}

TEST_F(DbBrowserClientTest, OneThatIsNotLoadedIsShown) {
    auto unloaded = info("orders");
    unloaded.loaded = false;
    answer(shop.hub, "db.info", unloaded);
    EXPECT_FALSE(result_of([&] { return browser->list_tables("shop"); })->loaded);
}

TEST_F(DbBrowserClientTest, APackageHasNoneWhereOthersAnswer) {
    answer(club.hub, "db.info", info("members"));
    answer(club.hub, "db.table.clear", DbWriteReply());
    ASSERT_TRUE(result_of([&] { return browser->list_tables("club"); }));
    EXPECT_FALSE(browser->list_tables("shop"));
    EXPECT_FALSE(browser->read_rows("shop", "t", 1, 0));
    EXPECT_FALSE(browser->clear_table("shop", "t"));
}

TEST_F(DbBrowserClientTest, NobodyIsAskedForAPackageThatIsNotKnown) {
    RawNode raw(bus, 9);
    raw.join();
    EXPECT_FALSE(browser->list_tables("nobody"));
    EXPECT_FALSE(browser->delete_row("nobody", "t", 1));
    tessaron::test::settle(raw, own.hub);
    EXPECT_EQ(requests(raw, "db.info"), 0U);
}

TEST_F(DbBrowserClientTest, RowsAreReadByTheNameOfTheDatabase) {
    Collected<proto::bus::Bytes> asked;
    DbTableReadReply not_here;
    not_here.ok = false;
    not_here.error = K_NOT_ADDRESSED;
    answer(shop.hub, "db.info", info("orders"));
    answer(shop.hub, "db.table.read", DbTableReadReply{true, "", 7, 3, {"a", "b"}, {"1|2"}}, asked);
    answer(club.hub, "db.table.read", not_here);
    auto const rows = result_of([&] { return browser->read_rows("shop", "t", 3, 4); });
    EXPECT_THAT(rows->rows, ElementsAre("1|2"));
    auto const request = tessaron::database::DbTableReadRequest::parse(asked.all().at(0));
    EXPECT_EQ(request.db_name, "orders");
    EXPECT_EQ(request.table_name, "t");
    EXPECT_EQ(request.from_row, 3U);
    EXPECT_EQ(request.to_row, 4U);
}

TEST_F(DbBrowserClientTest, OfTwoAnswersToAnEditThatOfWhoeverItIsForCounts) {
    Collected<proto::bus::Bytes> asked;
    answer(club.hub, "db.info", info("members"));
    answer(shop.hub, "db.cell.edit", DbWriteReply{false, K_NOT_ADDRESSED});
    answer(club.hub, "db.cell.edit", DbWriteReply(), asked);
    auto const edit = result_of([&] { return browser->edit_cell("club", "t", 5, 2, "new"); });
    EXPECT_TRUE(edit->ok);
    auto const request = tessaron::database::DbEditCellRequest::parse(asked.all().at(0));
    EXPECT_EQ(request.db_name, "members");
    EXPECT_EQ(request.table_name, "t");
    EXPECT_EQ(request.row_index, 5U);
    EXPECT_EQ(request.column_index, 2U);
    EXPECT_EQ(request.value, "new");
}

TEST_F(DbBrowserClientTest, AnEditThatIsForNobodyHasNoReply) {
    Collected<proto::bus::Bytes> asked;
    answer(shop.hub, "db.info", info("orders"));
    answer(shop.hub, "db.cell.edit", DbWriteReply{false, K_NOT_ADDRESSED}, asked);
    wait_until(
        [&] {
            EXPECT_FALSE(browser->edit_cell("shop", "t", 5, 2, "new"));
            return asked.size() > 0;
        },
        "it was asked");
}

TEST_F(DbBrowserClientTest, AnyOtherRefusalIsTheReply) {
    answer(shop.hub, "db.info", info("orders"));
    answer(shop.hub, "db.row.delete", DbWriteReply{false, "no row 9 in \"t\""});
    answer(shop.hub, "db.table.clear", DbWriteReply{false, "no table \"u\""});
    EXPECT_EQ(result_of([&] { return browser->delete_row("shop", "t", 9); })->error,
              "no row 9 in \"t\"");
    EXPECT_EQ(result_of([&] { return browser->clear_table("shop", "u"); })->error,
              "no table \"u\"");
}

TEST_F(DbBrowserClientTest, EverybodyIsToldApartByTheWholeDomainsAnswers) {
    RawNode raw(bus, 9);
    raw.join();
    answer(shop.hub, "db.info", info("orders"));
    answer(shop.hub, "db.table.clear", DbWriteReply());
    ASSERT_TRUE(result_of([&] { return browser->clear_table("shop", "t"); }));
    tessaron::test::settle(raw, own.hub);
    EXPECT_GE(raw.heard(MessageType::DISCOVERY_REQUEST).size(), 1U);
    for (auto const& frame : raw.heard(MessageType::REQUEST)) {
        if (frame.topic_id != topic_hash(K_MAP_TOPIC)) {
            EXPECT_EQ(frame.dest, 0U);
        }
    }
    EXPECT_GE(requests(raw, "db.table.clear"), 1U);
}

TEST_F(DbBrowserClientTest, EachThreadGetsTheDatabaseOfItsOwnPackage) {
    answer(shop.hub, "db.info", info("orders"));
    answer(club.hub, "db.info", info("members"));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, is_shop = i % 2 == 0] {
            auto const found = browser->list_tables(is_shop ? "shop" : "club");
            wrong += found && found->name != (is_shop ? "orders" : "members") ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(DbBrowserClientTest, AfterAStopNobodyIsAsked) {
    RawNode raw(bus, 9);
    raw.join();
    answer(shop.hub, "db.info", info("orders"));
    browser->request_stop();
    EXPECT_FALSE(browser->list_tables("shop"));
    EXPECT_FALSE(browser->clear_table("shop", "t"));
    tessaron::test::settle(raw, own.hub);
    EXPECT_EQ(requests(raw, "db.info"), 0U);
}

TEST_F(DbBrowserClientTest, ItIsANodeOfItsOwnThatLetsTheBusLearnOfDatabases) {
    auto const device = own.hub.discovered_devices().at(200);
    std::vector<std::string> names;
    for (auto const& module : device.hosted_modules) {
        names.push_back(module.name + " " + std::to_string(module.address));
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("diagnostics 3200", "db_browser 4200"));
    RawNode raw(bus, 9);
    raw.join();
    raw.send(MessageType::DISCOVERY_REQUEST, 200, {}, "", 1);
    raw.wait_for(MessageType::DISCOVERY_RESPONSE, 1, "the daemon tells of itself");
    auto const told = proto::bus::decode_topics_and_roles_after_identity(
        raw.heard(MessageType::DISCOVERY_RESPONSE).at(0).data);
    ASSERT_EQ(told.subscriptions.size(), 1U);
    EXPECT_EQ(told.subscriptions[0].name, "db.*");
    EXPECT_EQ(told.subscriptions[0].description,
              "Priming providers_for() so db.info/db.table.read calls take the fast path");
}

} // namespace
} // namespace mirelclient::test
