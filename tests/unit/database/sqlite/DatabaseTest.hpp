#pragma once

#include "database/sqlite/SqliteDatabase.hpp"
#include "tests/unit/database/sqlite/SqliteFile.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tessaron::test {

/// A database with an application that has it open all the time. Operations are tried as the server
/// does them: each on a connection of its own.
struct DatabaseTest : testing::Test {
    DatabaseTest() { limits.time_limit = std::chrono::minutes(1); }

    std::string run(std::string const& sql) { return database.file.run(sql); }
    database::sqlite::SqliteDatabase open() { return {database.file.path, limits}; }

    database::DbTableReadReply read(std::string const& table, std::uint64_t from = 1,
                                    std::uint64_t to = 0) {
        return open().read(table, from, to);
    }
    std::vector<std::string> rows(std::string const& table, std::uint64_t from = 1,
                                  std::uint64_t to = 0) {
        return read(table, from, to).rows;
    }
    /// What an operation is refused with, nothing if it is not.
    template <typename Operation>
    static std::string refusal_of(Operation operation) {
        try {
            operation();
            return "";
        } catch (database::sqlite::SqliteError const& error) {
            return error.what();
        }
    }
    std::string edit(std::string const& table, std::uint64_t row, std::uint32_t column,
                     std::string const& value) {
        return refusal_of([&] { open().edit_cell(table, row, column, value); });
    }
    std::string remove(std::string const& table, std::uint64_t row) {
        return refusal_of([&] { open().delete_row(table, row); });
    }

    FreshDatabase database;
    database::sqlite::DbServerLimits limits;
};

} // namespace tessaron::test
