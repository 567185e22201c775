// A node on the bus that offers a database, or only asks others for theirs, until its standard
// input ends:
//
//     database_node ADDRESS NODE_NAME [DB_NAME PATH]
//
//     info                               prints lines "database SOURCE NAME LOADED TABLES"
//     read DB TABLE FROM TO              prints lines "row TEXT"
//     edit DB TABLE ROW COLUMN VALUE     delete DB TABLE ROW     clear DB TABLE
//
// It asks by a client of its own, everybody on its bus. A line "ready ADDRESS" tells that it has
// joined, and under which address. Each command ends in a line "ok", "refused TEXT" or "none", for
// a question that nobody has answered.

#include "database/DbClient.hpp"
#include "database/sqlite/DbServer.hpp"
#include "tests/support/MulticastNode.hpp"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>

namespace {

using tessaron::DbClient;

constexpr std::uint32_t K_CLIENT_OFFSET = 4000;
constexpr std::uint32_t K_DOMAIN = 0;
constexpr std::chrono::seconds K_PATIENCE{20};
/// Of a question that is answered by nobody knows how many.
constexpr std::chrono::seconds K_WHOLE_TIME{1};

void print_line(std::string const& line) {
    std::cout << line << std::endl;
}

template <typename Reply>
std::string outcome(std::optional<Reply> const& reply) {
    return !reply ? "none" : reply->ok ? "ok" : "refused " + reply->error;
}

std::string ask_for_databases(DbClient& client) {
    for (auto const& info : client.query_all_db_info(K_WHOLE_TIME)) {
        std::string line = "database " + std::to_string(info.source) + " " + info.name +
                           (info.loaded ? " 1" : " 0");
        for (auto const& table : info.tables) {
            line += " " + table.name + ":" + std::to_string(table.row_count);
        }
        print_line(line);
    }
    return "ok";
}

std::string obey(DbClient& client, std::string const& line) {
    std::istringstream words(line);
    std::string command;
    std::string database;
    std::string table;
    std::uint64_t row = 0;
    words >> command >> database >> table;
    if (command == "info") {
        return ask_for_databases(client);
    }
    if (command == "clear") {
        return outcome(client.clear_table(database, table, K_PATIENCE));
    }
    words >> row;
    if (command == "delete") {
        return outcome(client.delete_row(database, table, row, K_PATIENCE));
    }
    if (command == "edit") {
        std::uint32_t column = 0;
        std::string value;
        words >> column >> value;
        return outcome(client.edit_cell(database, table, row, column, value, K_PATIENCE));
    }
    if (command == "read") {
        std::uint64_t to = 0;
        words >> to;
        auto const reply = client.read_table_rows(database, table, row, to, K_PATIENCE);
        for (auto const& text : reply ? reply->rows : std::vector<std::string>()) {
            print_line("row " + text);
        }
        return outcome(reply);
    }
    return "refused no command: " + command;
}

void run(int argc, char** argv) {
    auto const address = static_cast<std::uint32_t>(std::stoul(argv[1]));
    tessaron::test::MulticastNode node(address, argv[2]);
    std::optional<tessaron::database::sqlite::DbServer> server;
    if (argc == 5) {
        // A test says nothing about how fast a machine is.
        tessaron::database::sqlite::DbServerLimits limits;
        limits.time_limit = K_PATIENCE;
        server.emplace(node.hub, argv[3], argv[4], limits);
    }
    node.join();
    auto const client =
        DbClient::create(node.hub, address + K_CLIENT_OFFSET, {"db_browser", K_DOMAIN});
    print_line("ready " + std::to_string(node.hub.address()));
    for (std::string line; std::getline(std::cin, line);) {
        print_line(obey(*client, line));
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) {
        std::fprintf(stderr, "database_node ADDRESS NODE_NAME [DB_NAME PATH]\n");
        return 2;
    }
    try {
        run(argc, argv);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "database_node: %s\n", error.what());
        return 1;
    }
    return 0;
}
