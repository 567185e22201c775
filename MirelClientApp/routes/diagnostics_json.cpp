#include "MirelClientApp/routes/diagnostics_json.hpp"

#include "app/utilities/line_text.hpp"

#include <string>
#include <utility>
#include <vector>

namespace mirelclient::json_helpers {

using tessaron::json::Value;

namespace {

constexpr char K_CELL_SEPARATOR = '|';

template <typename Number>
double as_number(Number value) {
    return static_cast<double>(value);
}

Value texts(std::vector<std::string> const& lines) {
    return Value::Array(lines.begin(), lines.end());
}

Value cells(std::string const& row) {
    Value::Array cells;
    std::size_t begin = 0;
    for (std::size_t bar = row.find(K_CELL_SEPARATOR); bar != std::string::npos;
         bar = row.find(K_CELL_SEPARATOR, begin)) {
        cells.emplace_back(row.substr(begin, bar - begin));
        begin = bar + 1;
    }
    cells.emplace_back(row.substr(begin));
    return cells;
}

} // namespace

double to_epoch_seconds(std::chrono::system_clock::time_point time) {
    return as_number(
        std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count());
}

Value session_record(tessaron::SessionRecord const& record) {
    return Value::Object{{"is_start", record.is_start},
                         {"timestamp", to_epoch_seconds(record.ts)},
                         {"pid", as_number(record.pid)},
                         {"executable_path", record.exe},
                         {"user", record.user},
                         {"working_dir", record.cwd},
                         {"args", tessaron::join(record.args, ' ')},
                         {"duration_seconds", as_number(record.duration_s.count())},
                         {"reason", record.reason},
                         {"runtime_snapshot", record.runtime},
                         {"log_line", as_number(record.log_line)}};
}

Value crash_record(tessaron::CrashRecord const& record) {
    return Value::Object{{"ts", as_number(record.ts)},
                         {"ts_ms", as_number(record.ts_ms)},
                         {"pid", as_number(record.pid)},
                         {"signum", record.signum},
                         {"addr", tessaron::crash_address_text(record)},
                         {"detail", record.detail},
                         {"backtrace", texts(record.backtrace)},
                         {"version", record.version},
                         {"build_ts", record.build_ts},
                         {"build_machine", record.build_machine},
                         {"build_user", record.build_user},
                         {"commit", record.commit},
                         {"build_type", record.build_type}};
}

Value log_info(tessaron::LogInfoReply const& reply) {
    return Value::Object{{"path", reply.path},
                         {"line_count", as_number(reply.line_count)},
                         {"file_size_bytes", as_number(reply.file_size_bytes)},
                         {"min_level", as_number(static_cast<int>(reply.min_level))},
                         {"generation", as_number(reply.generation)}};
}

Value log_read(tessaron::LogReadReply const& reply) {
    return Value::Object{{"ok", reply.ok},
                         {"error", reply.error},
                         {"total_lines", as_number(reply.total_lines)},
                         {"from_line", as_number(reply.from_line)},
                         {"generation", as_number(reply.generation)},
                         {"lines", texts(reply.lines)}};
}

Value db_info(tessaron::database::DbInfoReply const& reply) {
    Value::Array tables;
    for (tessaron::database::DbTableInfo const& table : reply.tables) {
        tables.push_back(Value::Object{{"name", table.name},
                                       {"row_count", as_number(table.row_count)},
                                       {"column_names", texts(table.column_names)}});
    }
    return Value::Object{{"name", reply.name},
                         {"path", reply.path},
                         {"loaded", reply.loaded},
                         {"tables", std::move(tables)}};
}

Value db_table_read(tessaron::database::DbTableReadReply const& reply) {
    Value::Array rows;
    for (std::string const& row : reply.rows) {
        rows.push_back(cells(row));
    }
    return Value::Object{{"ok", reply.ok},
                         {"error", reply.error},
                         {"total_rows", as_number(reply.total_rows)},
                         {"from_row", as_number(reply.from_row)},
                         {"column_names", texts(reply.column_names)},
                         {"rows", std::move(rows)}};
}

Value db_write_result(tessaron::database::DbWriteReply const& reply) {
    return Value::Object{{"ok", reply.ok}, {"error", reply.error}};
}

} // namespace mirelclient::json_helpers
