#include "database/database_records.hpp"

#include "app/utilities/line_text.hpp"
#include "bus/record_fields.hpp"
#include "proto/bus/topic_description.hpp"

#include <optional>
#include <string_view>
#include <tuple>

namespace tessaron::database {
namespace {

using bus::RecordReader;
using bus::RecordWriter;

// The fields, by which requests and replies agree.
constexpr char K_DB_NAME[] = "db_name";
constexpr char K_TABLE_NAME[] = "table_name";
constexpr char K_FROM_ROW[] = "from_row";
constexpr char K_TO_ROW[] = "to_row";
constexpr char K_TOTAL_ROWS[] = "total_rows";
constexpr char K_COLUMNS[] = "columns";
constexpr char K_ROW_INDEX[] = "row_index";
constexpr char K_COLUMN_INDEX[] = "column_index";

/// No text is no names.
std::vector<std::string> split_names(std::string_view text) {
    std::vector<std::string> names;
    if (!text.empty()) {
        for (std::string_view const name : proto::bus::detail::split_by_char(text, ',')) {
            names.emplace_back(name);
        }
    }
    return names;
}

std::string table_line(DbTableInfo const& table) {
    return table.name + "|" + std::to_string(table.row_count) + "|" + join(table.column_names, ',');
}

std::optional<DbTableInfo> parse_table_line(std::string_view line) {
    std::size_t const first = line.find('|');
    std::size_t const second = first == std::string_view::npos ? first : line.find('|', first + 1);
    if (second == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view const count = line.substr(first + 1, second - first - 1);
    return DbTableInfo{std::string(line.substr(0, first)),
                       parse_number<std::uint64_t>(count).value_or(0),
                       split_names(line.substr(second + 1))};
}

template <typename Request>
RecordWriter write_table_of(Request const& request) {
    return RecordWriter().text(K_DB_NAME, request.db_name).text(K_TABLE_NAME, request.table_name);
}

template <typename Request>
void read_table_of(RecordReader const& reader, Request& request) {
    request.db_name = reader.text(K_DB_NAME);
    request.table_name = reader.text(K_TABLE_NAME);
}

} // namespace

Bytes DbInfoRequest::build() const {
    return RecordWriter().bytes();
}

DbInfoRequest DbInfoRequest::parse(Bytes const& payload) {
    std::ignore = RecordReader(payload);
    return {};
}

Bytes DbInfoReply::build() const {
    std::vector<std::string> lines;
    lines.reserve(tables.size());
    for (DbTableInfo const& table : tables) {
        lines.push_back(table_line(table));
    }
    return RecordWriter()
        .status(ok, "")
        .text("name", name)
        .text("path", path)
        .text("loaded", loaded ? "1" : "0")
        .lines(lines)
        .bytes();
}

DbInfoReply DbInfoReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbInfoReply reply;
    reply.ok = reader.ok();
    reply.name = reader.text("name");
    reply.path = reader.text("path");
    reply.loaded = reader.text("loaded") == "1";
    for (std::string const& line : reader.lines()) {
        if (auto table = parse_table_line(line)) {
            reply.tables.push_back(std::move(*table));
        }
    }
    return reply;
}

Bytes DbTableReadRequest::build() const {
    return write_table_of(*this).number(K_FROM_ROW, from_row).number(K_TO_ROW, to_row).bytes();
}

DbTableReadRequest DbTableReadRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbTableReadRequest request;
    read_table_of(reader, request);
    request.from_row = reader.number<std::uint64_t>(K_FROM_ROW);
    request.to_row = reader.number<std::uint64_t>(K_TO_ROW);
    return request;
}

Bytes DbTableReadReply::build() const {
    return RecordWriter()
        .status(ok, error)
        .number(K_TOTAL_ROWS, total_rows)
        .number(K_FROM_ROW, from_row)
        .text(K_COLUMNS, join(column_names, ','))
        .lines(rows)
        .bytes();
}

DbTableReadReply DbTableReadReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbTableReadReply reply;
    reply.ok = reader.ok();
    reply.error = reader.error();
    reply.total_rows = reader.number<std::uint64_t>(K_TOTAL_ROWS);
    reply.from_row = reader.number<std::uint64_t>(K_FROM_ROW);
    reply.column_names = split_names(reader.text(K_COLUMNS));
    reply.rows = reader.lines();
    return reply;
}

Bytes DbEditCellRequest::build() const {
    return write_table_of(*this)
        .number(K_ROW_INDEX, row_index)
        .number(K_COLUMN_INDEX, column_index)
        .data(value)
        .bytes();
}

DbEditCellRequest DbEditCellRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbEditCellRequest request;
    read_table_of(reader, request);
    request.row_index = reader.number<std::uint64_t>(K_ROW_INDEX);
    request.column_index = reader.number<std::uint32_t>(K_COLUMN_INDEX);
    request.value = reader.data();
    return request;
}

Bytes DbDeleteRowRequest::build() const {
    return write_table_of(*this).number(K_ROW_INDEX, row_index).bytes();
}

DbDeleteRowRequest DbDeleteRowRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbDeleteRowRequest request;
    read_table_of(reader, request);
    request.row_index = reader.number<std::uint64_t>(K_ROW_INDEX);
    return request;
}

Bytes DbClearTableRequest::build() const {
    return write_table_of(*this).bytes();
}

DbClearTableRequest DbClearTableRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    DbClearTableRequest request;
    read_table_of(reader, request);
    return request;
}

Bytes DbWriteReply::build() const {
    return RecordWriter().status(ok, error).bytes();
}

DbWriteReply DbWriteReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.ok(), reader.error()};
}

} // namespace tessaron::database
