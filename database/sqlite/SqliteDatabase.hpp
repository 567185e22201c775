#pragma once

#include "database/database_records.hpp"
#include "database/sqlite/DbServerLimits.hpp"
#include "database/sqlite/SqliteConnection.hpp"
#include "database/sqlite/sqlite_table.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron::database::sqlite {

/// A database file, opened for one request: what `DbServer` answers with.
///
/// How cells are shown: numbers and texts as SQLite writes them, NULL as nothing, a blob as
/// X'<hexadecimal>', a line break as a blank; what is longer than the limit ends in "…".
///
/// How cells are written: as text, which the column's declared type turns into a number where it
/// can; where a number stands in a column without a type, a number. A blob, and a cell that is
/// shown cut, would be lost by writing back what is shown, and are refused.
///
/// Ownership: owns its connection, for as long as it lives.
/// Thread safety: one thread at a time, the caller's duty. The file may have any number of other
/// readers and writers; each operation is one transaction.
/// Errors: `SqliteError`, with a text for the operator; then nothing has been changed.
class SqliteDatabase {
public:
    SqliteDatabase(std::string const& path, DbServerLimits const& limits);

    /// As many tables as a reply can hold, by name.
    std::vector<DbTableInfo> tables();
    /// `from_row` 0 means 1, `to_row` 0 the end; both are included. Gives as many rows as the
    /// limits allow, none where the table ends before.
    DbTableReadReply read(std::string const& table, std::uint64_t from_row, std::uint64_t to_row);

    // SqliteDatabase_Write.cpp
    void edit_cell(std::string const& table, std::uint64_t row, std::uint32_t column,
                   std::string_view value);
    void delete_row(std::string const& table, std::uint64_t row);
    void clear_table(std::string const& table);

private:
    using Clock = SqliteConnection::Clock;

    SqliteTable table(std::string const& name);
    /// Gives up at the limit, at that time or at the deadline, with what it has counted.
    std::uint64_t count_rows(SqliteTable const& table, Clock::time_point until);
    /// Bytes of a reply that are left for rows.
    std::size_t room_for_rows(SqliteTable const& table) const;
    /// Bytes that are shown of each cell of the table.
    std::size_t cell_limit(SqliteTable const& table) const;

    // SqliteDatabase_Write.cpp
    /// Steps to the one row that has this number: its key's columns, then `more`.
    SqliteStatement find_row(SqliteTable const& table, std::uint64_t row,
                             std::vector<std::string> const& more);
    /// Runs a statement that ends in the key's parameters on the row that was found.
    void change_row(SqliteTable const& table, SqliteStatement const& found,
                    SqliteStatement& change);

    DbServerLimits const limits_;
    SqliteConnection connection_;
};

/// As the offset of a statement: one that no table can reach is as good as any other.
std::int64_t offset_of_row(std::uint64_t row);

} // namespace tessaron::database::sqlite
