#include "app/utilities/line_text.hpp"
#include "database/sqlite/SqliteDatabase.hpp"

#include <charconv>
#include <cmath>
#include <tuple>

// What is changed in a database. A row is named by its number; the statement that changes it names
// it by its key, which is looked up in the same transaction.

namespace tessaron::database::sqlite {
namespace {

using Kind = SqliteTransaction::Kind;

/// What stood there says whether a number may.
void bind_like(SqliteStatement& statement, CellType before, std::string_view value) {
    if (before == CellType::INTEGER || before == CellType::REAL) {
        if (auto const integer = parse_number<std::int64_t>(value)) {
            statement.bind(*integer);
            return;
        }
        double real = 0;
        auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), real);
        if (error == std::errc() && end == value.data() + value.size() && std::isfinite(real)) {
            statement.bind(real);
            return;
        }
    }
    statement.bind(value);
}

} // namespace

SqliteStatement SqliteDatabase::find_row(SqliteTable const& table, std::uint64_t row,
                                         std::vector<std::string> const& more) {
    if (table.key.empty()) {
        throw SqliteError("the rows of \"" + table.name + "\" cannot be told apart");
    }
    if (row == 0) {
        throw SqliteError("rows count from 1");
    }
    std::vector<std::string> wanted = table.key;
    wanted.insert(wanted.end(), more.begin(), more.end());
    SqliteStatement found(connection_, table.select(wanted) + " LIMIT 1 OFFSET ?");
    found.bind(offset_of_row(row));
    if (!found.step()) {
        throw SqliteError("no row " + std::to_string(row) + " in \"" + table.name + "\"");
    }
    return found;
}

void SqliteDatabase::change_row(SqliteTable const& table, SqliteStatement const& found,
                                SqliteStatement& change) {
    for (std::size_t i = 0; i < table.key.size(); ++i) {
        change.bind(found.value(static_cast<int>(i)));
    }
    std::ignore = change.step();
    // A trigger may have told the database to pass over it.
    if (connection_.changed_rows() != 1) {
        throw SqliteError("the database has left the row as it is");
    }
}

void SqliteDatabase::edit_cell(std::string const& name, std::uint64_t row, std::uint32_t column,
                               std::string_view value) {
    SqliteTransaction transaction(connection_, Kind::WRITE);
    SqliteTable const table = this->table(name);
    if (column >= table.columns.size()) {
        throw SqliteError("no column " + std::to_string(column) + " in \"" + name + "\"");
    }
    SqliteColumn const& wanted = table.columns[column];
    if (column == 0 || wanted.is_key) {
        throw SqliteError("column " + std::to_string(column) + " is the primary key");
    }
    auto const found = find_row(table, row, {wanted.name});
    auto const cell = static_cast<int>(table.key.size());
    CellType const before = found.type(cell);
    if (before == CellType::BLOB) {
        throw SqliteError("a blob cannot be written as text");
    }
    if (found.text(cell).size() > cell_limit(table)) {
        throw SqliteError("the value is longer than what is shown of it");
    }
    SqliteStatement update(connection_, "UPDATE main." + quote_name(name) + " SET " +
                                            quote_name(wanted.name) + " = ?" + table.where_key());
    bind_like(update, before, value);
    change_row(table, found, update);
    transaction.commit();
}

void SqliteDatabase::delete_row(std::string const& name, std::uint64_t row) {
    SqliteTransaction transaction(connection_, Kind::WRITE);
    SqliteTable const table = this->table(name);
    auto const found = find_row(table, row, {});
    SqliteStatement change(connection_, "DELETE FROM main." + quote_name(name) + table.where_key());
    change_row(table, found, change);
    transaction.commit();
}

void SqliteDatabase::clear_table(std::string const& name) {
    SqliteTransaction transaction(connection_, Kind::WRITE);
    SqliteStatement change(connection_, "DELETE FROM main." + quote_name(table(name).name));
    std::ignore = change.step();
    transaction.commit();
}

} // namespace tessaron::database::sqlite
