#include "database/sqlite/SqliteDatabase.hpp"

#include "app/utilities/line_text.hpp"

#include <algorithm>
#include <limits>

// What is read of a database. Each operation is one transaction, so that the numbers and the rows
// of a reply belong together.

namespace tessaron::database::sqlite {
namespace {

constexpr char K_CUT[] = "…";
/// The mark, what stands around a blob, and the bar behind a cell.
constexpr std::size_t K_ROOM_FOR_MARKS = 8;
/// Rows that are counted between two looks at the clock.
constexpr std::uint64_t K_ROWS_BETWEEN_LOOKS = 1024;

std::string hexadecimal(std::string_view bytes) {
    constexpr char K_DIGITS[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (char const c : bytes) {
        auto const byte = static_cast<unsigned char>(c);
        text += K_DIGITS[byte >> 4];
        text += K_DIGITS[byte & 0xF];
    }
    return text;
}

/// Not within a character.
std::string_view cut_at(std::string_view text, std::size_t limit) {
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80) {
        --limit;
    }
    return text.substr(0, limit);
}

std::size_t joined_size(std::vector<std::string> const& names) {
    std::size_t size = 0;
    for (std::string const& name : names) {
        size += name.size() + 1;
    }
    return size;
}

/// In `limit` bytes and a few for marks.
std::string cell_text(SqliteStatement const& row, int column, std::size_t limit) {
    if (row.type(column) == CellType::BLOB) {
        std::string_view const blob = row.blob(column);
        bool const is_whole = blob.size() <= limit / 2;
        return "X'" + hexadecimal(blob.substr(0, limit / 2)) + (is_whole ? "" : K_CUT) + "'";
    }
    std::string_view const text = row.text(column);
    return text.size() <= limit ? one_line(text) : one_line(cut_at(text, limit)) + K_CUT;
}

std::string row_line(SqliteStatement const& row, std::size_t columns, std::size_t cell_limit) {
    std::vector<std::string> cells;
    cells.reserve(columns);
    for (std::size_t i = 0; i < columns; ++i) {
        cells.push_back(cell_text(row, static_cast<int>(i), cell_limit));
    }
    return join(cells, '|');
}

std::vector<std::string> own_names(SqliteTable const& table) {
    std::vector<std::string> names;
    names.reserve(table.columns.size());
    for (SqliteColumn const& column : table.columns) {
        names.push_back(column.name);
    }
    return names;
}

} // namespace

std::int64_t offset_of_row(std::uint64_t row) {
    auto const last = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return static_cast<std::int64_t>(std::min(row - 1, last));
}

SqliteDatabase::SqliteDatabase(std::string const& path, DbServerLimits const& limits)
    : limits_(limits), connection_(path, limits.busy_timeout, Clock::now() + limits.time_limit) {
}

SqliteTable SqliteDatabase::table(std::string const& name) {
    auto table = find_table(connection_, name);
    if (!table) {
        throw SqliteError("no table \"" + name + "\"");
    }
    return *std::move(table);
}

std::uint64_t SqliteDatabase::count_rows(SqliteTable const& table, Clock::time_point until) {
    SqliteStatement rows(connection_, "SELECT 1 FROM main." + quote_name(table.name));
    std::uint64_t count = 0;
    try {
        while (count < limits_.max_counted_rows && rows.step()) {
            ++count;
            if (count % K_ROWS_BETWEEN_LOOKS == 0 && Clock::now() >= until) {
                break;
            }
        }
    } catch (SqliteTimeout const&) {
        // What was counted is as good as any other part of it.
    }
    return count;
}

std::vector<DbTableInfo> SqliteDatabase::tables() {
    SqliteTransaction transaction(connection_, SqliteTransaction::Kind::READ);
    std::vector<DbTableInfo> infos;
    std::size_t room = limits_.max_reply_size;
    auto const tables = list_tables(connection_);
    for (std::size_t i = 0; i < tables.size(); ++i) {
        DbTableInfo info{tables[i].name, 0, tables[i].shown_column_names()};
        std::size_t const size = info.name.size() + joined_size(info.column_names) +
                                 std::numeric_limits<std::uint64_t>::digits10 + 3;
        if (size > room) {
            continue;
        }
        room -= size;
        // Each gets its share of half of the time, so that one large table is not all there is.
        auto const left = (connection_.deadline() - Clock::now()) / 2;
        auto const share = left / static_cast<std::int64_t>(tables.size() - i);
        info.row_count = count_rows(tables[i], Clock::now() + share);
        infos.push_back(std::move(info));
    }
    return infos;
}

std::size_t SqliteDatabase::room_for_rows(SqliteTable const& table) const {
    std::size_t const names = joined_size(table.shown_column_names());
    if (names >= limits_.max_reply_size) {
        throw SqliteError("the columns of \"" + table.name + "\" have too long names");
    }
    return limits_.max_reply_size - names;
}

std::size_t SqliteDatabase::cell_limit(SqliteTable const& table) const {
    std::size_t const share = room_for_rows(table) / std::max<std::size_t>(table.columns.size(), 1);
    return std::min(limits_.max_cell_size, share > K_ROOM_FOR_MARKS ? share - K_ROOM_FOR_MARKS : 0);
}

DbTableReadReply SqliteDatabase::read(std::string const& name, std::uint64_t from_row,
                                      std::uint64_t to_row) {
    SqliteTransaction transaction(connection_, SqliteTransaction::Kind::READ);
    SqliteTable const table = this->table(name);
    DbTableReadReply reply;
    reply.column_names = table.shown_column_names();
    reply.from_row = std::max<std::uint64_t>(from_row, 1);
    reply.total_rows =
        count_rows(table, Clock::now() + (connection_.deadline() - Clock::now()) / 2);
    if (to_row != 0 && to_row < reply.from_row) {
        return reply;
    }
    std::uint64_t const asked = to_row == 0 ? limits_.max_rows : to_row - reply.from_row + 1;
    SqliteStatement rows(connection_, table.select(own_names(table)) + " LIMIT ? OFFSET ?");
    rows.bind(static_cast<std::int64_t>(std::min(asked, limits_.max_rows)))
        .bind(offset_of_row(reply.from_row));
    std::size_t const limit = cell_limit(table);
    for (std::size_t room = room_for_rows(table); rows.step();) {
        std::string line = row_line(rows, table.columns.size(), limit);
        if (line.size() + 1 > room) {
            break;
        }
        room -= line.size() + 1;
        reply.rows.push_back(std::move(line));
    }
    return reply;
}

} // namespace tessaron::database::sqlite
