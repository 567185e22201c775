#pragma once

#include "app/app_control_envelopes.hpp"
#include "app/utilities/json_value.hpp"
#include "database/database_records.hpp"
#include "logger/bus/logger_envelopes.hpp"

#include <chrono>

/// The JSON shapes of what applications tell of themselves, one function per record.
namespace mirelclient::json_helpers {

/// Whole seconds since the epoch; what is left of the microseconds is cut off.
double to_epoch_seconds(std::chrono::system_clock::time_point time);

/// The arguments as one text, with blanks between them.
tessaron::json::Value session_record(tessaron::SessionRecord const& record);
/// The address as in the crash log, empty without one.
tessaron::json::Value crash_record(tessaron::CrashRecord const& record);
tessaron::json::Value log_info(tessaron::LogInfoReply const& reply);
/// Also a reply that says "error".
tessaron::json::Value log_read(tessaron::LogReadReply const& reply);

tessaron::json::Value db_info(tessaron::database::DbInfoReply const& reply);
/// Splits the rows into cells at each bar: one that stood in a cell makes two of it.
tessaron::json::Value db_table_read(tessaron::database::DbTableReadReply const& reply);
tessaron::json::Value db_write_result(tessaron::database::DbWriteReply const& reply);

} // namespace mirelclient::json_helpers
