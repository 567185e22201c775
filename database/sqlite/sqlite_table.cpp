#include "database/sqlite/sqlite_table.hpp"

#include "app/utilities/line_text.hpp"

#include <strings.h>

#include <algorithm>
#include <array>

namespace tessaron::database::sqlite {
namespace {

/// Every table of rows with numbers has a column by each of these names, unless it has one of its
/// own by that name.
constexpr std::array K_ROW_NUMBERS{"rowid", "_rowid_", "oid"};

constexpr char K_TABLES[] = "SELECT name, wr FROM pragma_table_list WHERE schema = 'main' "
                            "AND type = 'table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' "
                            "AND name NOT LIKE '%|%' AND instr(name, char(10)) = 0";

/// Generated columns included, hidden ones not.
constexpr char K_COLUMNS[] =
    "SELECT name, pk FROM pragma_table_xinfo(?1, 'main') WHERE hidden <> 1 ORDER BY cid";

struct DeclaredColumn {
    std::string name;
    std::int64_t place_in_key = 0; ///< From 1; 0 where it is no part of it.
};

bool is_same_name(std::string const& one, char const* other) {
    return strcasecmp(one.c_str(), other) == 0;
}

std::vector<DeclaredColumn> declared_columns(SqliteConnection& connection,
                                             std::string const& table) {
    std::vector<DeclaredColumn> columns;
    SqliteStatement statement(connection, K_COLUMNS);
    statement.bind(table);
    while (statement.step()) {
        columns.push_back({std::string(statement.text(0)), statement.integer(1)});
    }
    return columns;
}

std::optional<std::string> row_number_name(std::vector<DeclaredColumn> const& columns) {
    for (char const* const name : K_ROW_NUMBERS) {
        if (std::none_of(columns.begin(), columns.end(), [name](DeclaredColumn const& column) {
                return is_same_name(column.name, name);
            })) {
            return name;
        }
    }
    return std::nullopt;
}

SqliteTable describe(std::string name, bool has_row_numbers, std::vector<DeclaredColumn> columns) {
    SqliteTable table;
    table.name = std::move(name);
    bool const begins_with_key = !columns.empty() && columns.front().place_in_key != 0;
    if (has_row_numbers) {
        if (auto const number = row_number_name(columns)) {
            table.key.push_back(*number);
            if (!begins_with_key) {
                table.columns.push_back({*number, true});
            }
        }
    } else {
        std::vector<DeclaredColumn> key = columns;
        std::erase_if(key, [](DeclaredColumn const& column) { return column.place_in_key == 0; });
        std::sort(key.begin(), key.end(), [](auto const& one, auto const& other) {
            return one.place_in_key < other.place_in_key;
        });
        for (DeclaredColumn const& column : key) {
            table.key.push_back(column.name);
        }
        if (!begins_with_key) {
            std::stable_partition(columns.begin(), columns.end(),
                                  [](auto const& column) { return column.place_in_key != 0; });
        }
    }
    for (DeclaredColumn& column : columns) {
        table.columns.push_back({std::move(column.name), column.place_in_key != 0});
    }
    return table;
}

/// Values are compared byte by byte, whatever the table's own idea of equal texts is: two rows that
/// differ for their key may not differ for a column of it.
std::string exactly(std::string const& column) {
    return quote_name(column) + " COLLATE BINARY";
}

std::vector<SqliteTable> tables_of(SqliteConnection& connection, SqliteStatement& names) {
    std::vector<SqliteTable> tables;
    while (names.step()) {
        std::string name(names.text(0));
        auto columns = declared_columns(connection, name);
        tables.push_back(describe(std::move(name), names.integer(1) == 0, std::move(columns)));
    }
    return tables;
}

} // namespace

std::vector<std::string> SqliteTable::shown_column_names() const {
    std::vector<std::string> names;
    names.reserve(columns.size());
    for (SqliteColumn const& column : columns) {
        names.push_back(one_line(column.name));
        std::replace(names.back().begin(), names.back().end(), ',', ' ');
    }
    return names;
}

std::string SqliteTable::select(std::vector<std::string> const& wanted) const {
    std::vector<std::string> expressions;
    std::vector<std::string> order;
    std::transform(wanted.begin(), wanted.end(), std::back_inserter(expressions),
                   [](std::string const& column) { return quote_name(column); });
    std::transform(key.begin(), key.end(), std::back_inserter(order), exactly);
    std::string const from = join(expressions, ',') + " FROM main." + quote_name(name);
    return "SELECT " + from + (key.empty() ? " NOT INDEXED" : " ORDER BY " + join(order, ','));
}

std::string SqliteTable::where_key() const {
    std::string text = " WHERE ";
    for (std::size_t i = 0; i < key.size(); ++i) {
        text += (i == 0 ? "" : " AND ") + exactly(key[i]) + " IS ?";
    }
    return text;
}

std::vector<SqliteTable> list_tables(SqliteConnection& connection) {
    SqliteStatement names(connection, std::string(K_TABLES) + " ORDER BY name");
    return tables_of(connection, names);
}

std::optional<SqliteTable> find_table(SqliteConnection& connection, std::string const& name) {
    SqliteStatement names(connection, std::string(K_TABLES) + " AND name = ?1");
    names.bind(name);
    auto tables = tables_of(connection, names);
    return tables.empty() ? std::nullopt : std::optional<SqliteTable>(std::move(tables.front()));
}

} // namespace tessaron::database::sqlite
