#pragma once

#include "database/sqlite/SqliteConnection.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron::database::sqlite {

struct SqliteColumn {
    std::string name;
    bool is_key = false; ///< Of the primary key, or the row's number.

    bool operator==(SqliteColumn const&) const = default;
};

/// A table as it is shown. Column 0 belongs to the primary key: of a table that does not begin with
/// its key, the row's number ("rowid") is shown in front of its own columns, or, where rows have no
/// number, the key's columns stand before the others.
struct SqliteTable {
    std::string name;
    std::vector<SqliteColumn> columns;
    /// The columns that tell any row from all others, by which rows are ordered. None where the
    /// table's own columns have taken all names of the row's number: such rows stand in the order
    /// of their numbers too, but none can be named.
    std::vector<std::string> key;

    std::vector<std::string> shown_column_names() const;
    /// "SELECT <columns> FROM <table> ORDER BY <key>"
    std::string select(std::vector<std::string> const& wanted) const;
    /// " WHERE <key>", with a parameter for each of the key's columns.
    std::string where_key() const;
};

/// The tables that can be shown, by name, each with what has to be known of it: no views, whose
/// rows have no order and no place, no virtual tables and what they stand on, nothing of SQLite's
/// own, and no name that a line of a list cannot hold.
///
/// Thread safety: as the connection. Errors: `SqliteError`.
std::vector<SqliteTable> list_tables(SqliteConnection& connection);
std::optional<SqliteTable> find_table(SqliteConnection& connection, std::string const& name);

} // namespace tessaron::database::sqlite
