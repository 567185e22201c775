#pragma once

#include "app/crash_history.hpp"
#include "app/session_history.hpp"

#include <optional>
#include <string>

/// Where the two histories meet: the crash that ended a session.
///
/// Thread safety: safe from any thread. Errors: a file that cannot be read holds no crash.
namespace tessaron::detail {

bool is_crash_session_reason(std::string const& reason);

/// The record in the crash log that ended the session: the newest with the session's pid that is
/// not before its start nor after its stop. The stop may be a second behind: the crash handler asks
/// `time` for it, which lags behind the clock that the record's time is taken from.
std::optional<CrashRecord> find_matching_crash_record(std::string const& crash_log,
                                                      SessionRecord const& start,
                                                      SessionRecord const& stop);

} // namespace tessaron::detail
