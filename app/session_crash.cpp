#include "app/session_crash.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

namespace tessaron::detail {

namespace {

/// The clocks of the two histories may differ by the rest of a second.
constexpr std::int64_t K_CLOCK_LAG_SECONDS = 1;

std::int64_t to_seconds(std::chrono::system_clock::time_point time) {
    return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

} // namespace

bool is_crash_session_reason(std::string const& reason) {
    return reason.starts_with("crash:");
}

std::optional<CrashRecord> find_matching_crash_record(std::string const& crash_log,
                                                      SessionRecord const& start,
                                                      SessionRecord const& stop) {
    std::int64_t const from = to_seconds(start.ts);
    std::int64_t const to = to_seconds(stop.ts) + K_CLOCK_LAG_SECONDS;
    auto records = read_crash_history(crash_log, 0, K_CRASH_BACKTRACE_MAX);
    auto const found =
        std::find_if(records.rbegin(), records.rend(), [&](CrashRecord const& record) {
            return record.pid == start.pid && record.ts >= from && record.ts <= to;
        });
    return found == records.rend() ? std::nullopt : std::optional(std::move(*found));
}

} // namespace tessaron::detail
