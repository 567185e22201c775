#include "MirelClientApp/routes/database_routes.hpp"

#include "tests/unit/MirelClientApp/diagnostics/DiagnosticsTest.hpp"
#include "tests/unit/MirelClientApp/web/LoopbackClient.hpp"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <initializer_list>
#include <limits>
#include <utility>

namespace mirelclient::test {
namespace {

using tessaron::database::DbDeleteRowRequest;
using tessaron::database::DbEditCellRequest;
using tessaron::database::DbInfoReply;
using tessaron::database::DbTableReadReply;
using tessaron::database::DbTableReadRequest;
using tessaron::database::DbWriteReply;
using tessaron::test::answer;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char K_NO_DATABASE[] =
    R"({"error":"no db bus node identifying as this package answered"})";
constexpr char K_WRITTEN[] = R"({"error":"","ok":true})";
constexpr std::uint64_t K_MOST = std::numeric_limits<std::uint64_t>::max();

/// A package "shop" whose application does whatever it is told, and the routes in front of it.
class DatabaseRoutes : public DiagnosticsTest {
protected:
    DatabaseRoutes() {
        shop.join();
        answer(shop.hub, "db.info", DbInfoReply{true, "orders", "/o.db", true, {}, 0});
        answer(shop.hub, "db.table.read", DbTableReadReply{true, "", 7, 3, {"a"}, {"1|2"}}, reads);
        answer(shop.hub, "db.cell.edit", DbWriteReply(), edits);
        answer(shop.hub, "db.row.delete", DbWriteReply(), deletions);
        browser.emplace(own.hub, 4200, start_and_find({"shop"}));
        register_database_routes(server, *browser);
        EXPECT_EQ(server.start(), "");
    }

    std::string ask(std::string const& request) { return answer_to(server.port(), request); }
    std::string post(std::string const& target, std::string const& body) {
        return ask("POST " + target + " HTTP/1.1\r\nContent-Length: " +
                   std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    /// One round of answers may be missed on a busy machine.
    std::string until_answered(std::function<std::string()> const& request) {
        std::string text;
        wait_until(
            [&] {
                text = request();
                return !text.starts_with("HTTP/1.1 404");
            },
            "the database answers");
        return text;
    }
    /// What the application is asked for such a body.
    DbEditCellRequest edit_for(std::string const& body) {
        EXPECT_EQ(until_answered([&] { return post("/api/packages/shop/db/t/cell", body); }),
                  json_answer("200 OK", K_WRITTEN));
        return DbEditCellRequest::parse(edits.all().back());
    }
    DbTableReadRequest read_for(std::string const& query) {
        EXPECT_EQ(until_answered([&] { return ask(get("/api/packages/shop/db/t" + query)); }),
                  json_answer("200 OK", R"({"column_names":["a"],"error":"","from_row":3,)"
                                        R"("ok":true,"rows":[["1","2"]],"total_rows":7})"));
        return DbTableReadRequest::parse(reads.all().back());
    }

    HubNode shop{bus, 300, "shop"};
    Collected<proto::bus::Bytes> reads;
    Collected<proto::bus::Bytes> edits;
    Collected<proto::bus::Bytes> deletions;
    std::optional<DbBrowserClient> browser;
    WebServer server{"127.0.0.1", 0};
};

TEST_F(DatabaseRoutes, TheDatabaseIsShown) {
    EXPECT_EQ(
        until_answered([&] { return ask(get("/api/packages/shop/db")); }),
        json_answer("200 OK", R"({"loaded":true,"name":"orders","path":"/o.db","tables":[]})"));
}

TEST_F(DatabaseRoutes, ATableIsReadFromTheFirstRowToItsEndUnlessTheQuerySaysOtherwise) {
    auto const plain = read_for("");
    EXPECT_EQ(plain.db_name, "orders");
    EXPECT_EQ(plain.table_name, "t");
    EXPECT_EQ(plain.from_row, 1U);
    EXPECT_EQ(plain.to_row, 0U);
    auto const part = read_for("?from=5&to=9");
    EXPECT_EQ(part.from_row, 5U);
    EXPECT_EQ(part.to_row, 9U);
    auto const odd = read_for("?from=x&to=99999999999999999999");
    EXPECT_EQ(odd.from_row, 0U);
    EXPECT_EQ(odd.to_row, K_MOST);
}

TEST_F(DatabaseRoutes, NumbersOfAnEditAreCutToWhatTheyCanBe) {
    struct Case {
        std::string body;
        std::uint64_t row;
        std::uint32_t column;
        std::string value;
    };
    for (Case const& wanted : std::initializer_list<Case>{
             {R"({"row_index":2,"column_index":1,"value":"it's\n|"})", 2, 1, "it's\n|"},
             {"{}", 0, 0, ""},
             {"[1]", 0, 0, ""},
             {R"({"row_index":"2","column_index":null,"value":5})", 0, 0, ""},
             {R"({"row_index":-1,"column_index":-0.5,"value":true})", 0, 0, ""},
             {R"({"row_index":2.9,"column_index":1.9})", 2, 1, ""},
             {R"({"row_index":1e300,"column_index":4294967296})", K_MOST, 0xFFFFFFFF, ""},
             {R"({"row_index":nan,"column_index":inf})", 0, 0xFFFFFFFF, ""}}) {
        auto const asked = edit_for(wanted.body);
        EXPECT_EQ(asked.db_name, "orders");
        EXPECT_EQ(asked.table_name, "t");
        EXPECT_EQ(asked.row_index, wanted.row) << wanted.body;
        EXPECT_EQ(asked.column_index, wanted.column) << wanted.body;
        EXPECT_EQ(asked.value, wanted.value) << wanted.body;
    }
}

TEST_F(DatabaseRoutes, ADeletionTakesItsRowFromTheBody) {
    for (auto const& wanted : std::initializer_list<std::pair<std::string, std::uint64_t>>{
             {R"({"row_index":3})", 3}, {"{}", 0}, {R"({"row_index":-3})", 0}}) {
        EXPECT_EQ(until_answered(
                      [&] { return post("/api/packages/shop/db/t/delete-row", wanted.first); }),
                  json_answer("200 OK", K_WRITTEN));
        EXPECT_EQ(DbDeleteRowRequest::parse(deletions.all().back()).row_index, wanted.second)
            << wanted.first;
    }
}

TEST_F(DatabaseRoutes, ABodyThatCannotBeReadSaysWhatWasExpectedAndNobodyIsAsked) {
    for (std::string const body : {"", "no json", "{", "{} {}"}) {
        EXPECT_THAT(
            post("/api/packages/shop/db/t/cell", body),
            testing::AllOf(StartsWith("HTTP/1.1 400 "),
                           HasSubstr(R"({"error":"expected {\"row_index\":N,\"column_index\":N,)"
                                     R"(\"value\":\"...\"}: )")))
            << body;
        EXPECT_THAT(post("/api/packages/nobody/db/t/delete-row", body),
                    testing::AllOf(StartsWith("HTTP/1.1 400 "),
                                   HasSubstr(R"({"error":"expected {\"row_index\":N}: )")))
            << body;
    }
    EXPECT_EQ(post("/api/packages/shop/db/t/delete-row", ""),
              json_answer("400 Bad Request", R"({"error":"expected {\"row_index\":N}: )"
                                             R"(tiny_json: unexpected end of input"})"));
    EXPECT_EQ(edits.size(), 0U);
    EXPECT_EQ(deletions.size(), 0U);
}

TEST_F(DatabaseRoutes, WhatTheDatabaseRefusesIsABadRequestWithItsText) {
    answer(shop.hub, "db.table.clear", DbWriteReply{false, "no table \"u\""});
    EXPECT_EQ(until_answered([&] { return post("/api/packages/shop/db/u/clear", "ignored"); }),
              json_answer("400 Bad Request", R"({"error":"no table \"u\""})"));
}

TEST_F(DatabaseRoutes, APackageWithoutADatabaseIsNotFound) {
    std::string const not_found = json_answer("404 Not Found", K_NO_DATABASE);
    EXPECT_EQ(ask(get("/api/packages/nobody/db")), not_found);
    EXPECT_EQ(ask(get("/api/packages/nobody/db/t")), not_found);
    EXPECT_EQ(post("/api/packages/nobody/db/t/cell", "{}"), not_found);
    EXPECT_EQ(post("/api/packages/nobody/db/t/delete-row", "{}"), not_found);
    EXPECT_EQ(post("/api/packages/nobody/db/t/clear", ""), not_found);
}

TEST_F(DatabaseRoutes, AWriteThatIsForNobodyIsNotFound) {
    answer(shop.hub, "db.table.clear", DbWriteReply{false, tessaron::database::K_NOT_ADDRESSED});
    EXPECT_EQ(post("/api/packages/shop/db/t/clear", ""),
              json_answer("404 Not Found", K_NO_DATABASE));
}

} // namespace
} // namespace mirelclient::test
