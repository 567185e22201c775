#include "app/session_log_range.hpp"

#include "app/session_crash.hpp"
#include "app/utilities/line_text.hpp"
#include "logger/log_generations.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

namespace tessaron {
namespace {

constexpr std::string_view K_BRACKETS = "] [";
constexpr std::string_view K_STAMP_FORM = "dddd-dd-dd_dd:dd:dd.ddd"; // "d" is a digit

/// Gaps that are told one by one; a history can claim any number of generations.
constexpr std::size_t K_MISSING_NOTES_MAX = 1000;

bool is_level(std::string_view text) {
    // A number that is no level is written as "UNKNOWN".
    return text == "TRACE" || text == "INFO" || text == "WARNING" || text == "ERROR" ||
           text == "UNKNOWN";
}

bool has_form(std::string_view text, std::string_view form) {
    return std::equal(text.begin(), text.end(), form.begin(), form.end(),
                      [](char c, char f) { return f == 'd' ? c >= '0' && c <= '9' : c == f; });
}

/// The time stamp of "[label] [LEVEL] [stamp] message", whatever the label holds.
std::optional<std::string_view> find_time_stamp(std::string_view line) {
    if (!line.starts_with('[')) {
        return std::nullopt;
    }
    for (auto at = line.find(K_BRACKETS); at != line.npos; at = line.find(K_BRACKETS, at + 1)) {
        std::string_view const rest = line.substr(at + K_BRACKETS.size());
        auto const level_end = rest.find(K_BRACKETS);
        if (level_end == rest.npos) {
            return std::nullopt;
        }
        std::string_view const behind = rest.substr(level_end + K_BRACKETS.size());
        if (is_level(rest.substr(0, level_end)) && behind.size() > K_STAMP_FORM.size() &&
            behind[K_STAMP_FORM.size()] == ']' &&
            has_form(behind.substr(0, K_STAMP_FORM.size()), K_STAMP_FORM)) {
            return behind.substr(0, K_STAMP_FORM.size());
        }
    }
    return std::nullopt;
}

/// Milliseconds since the Unix epoch of a stamp of the right form, which is local time. Of the hour
/// that comes twice in a year it is one of the two.
std::optional<std::int64_t> to_milliseconds(std::string_view stamp) {
    auto const number = [stamp](std::size_t at, std::size_t length) {
        return parse_number<int>(stamp.substr(at, length)).value_or(0);
    };
    std::tm local{};
    local.tm_year = number(0, 4) - 1900;
    local.tm_mon = number(5, 2) - 1;
    local.tm_mday = number(8, 2);
    local.tm_hour = number(11, 2);
    local.tm_min = number(14, 2);
    local.tm_sec = number(17, 2);
    local.tm_isdst = -1; // what the clock's rules say
    int const day = local.tm_mday;
    if (local.tm_mon < 0 || local.tm_mon > 11 || local.tm_hour > 23 || local.tm_min > 59 ||
        local.tm_sec > 59) {
        return std::nullopt;
    }
    std::time_t const second = std::mktime(&local);
    if (local.tm_mday != day) {
        return std::nullopt; // no such day: it was carried over into another month
    }
    return std::int64_t{second} * 1000 + number(20, 3);
}

/// The generations from `first` to `last` that can be read, in their order.
std::vector<std::uint64_t> retained_generations(Logger& logger, std::uint64_t first,
                                                std::uint64_t last) {
    LogStats const stats = logger.stats();
    std::vector<std::uint64_t> generations;
    if (!stats.path.empty()) {
        generations = log_generations::existing(stats.path);
    }
    generations.push_back(stats.generation);
    std::erase_if(generations, [&](std::uint64_t g) { return g < first || g > last; });
    std::sort(generations.begin(), generations.end());
    generations.erase(std::unique(generations.begin(), generations.end()), generations.end());
    return generations;
}

/// The text that tells which generations are gone.
class MissingNotes {
public:
    /// The generations from `first` up to, but without, `end`.
    void add(std::uint64_t first, std::uint64_t end) {
        for (std::uint64_t generation = first; generation < end; ++generation) {
            if (count_ == K_MISSING_NOTES_MAX) {
                return;
            }
            ++count_;
            text_.append(text_.empty() ? "" : "; ");
            text_.append("generation " + std::to_string(generation) + " no longer retained");
        }
    }
    std::string take() { return std::move(text_); }

private:
    std::size_t count_ = 0;
    std::string text_;
};

std::int64_t to_milliseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

/// When a session ended whose stop line tells no place in the log.
std::int64_t end_of_session_ms(std::string const& crash_log, SessionRecord const& start,
                               SessionRecord const& stop) {
    if (detail::is_crash_session_reason(stop.reason)) {
        if (auto const crash = detail::find_matching_crash_record(crash_log, start, stop)) {
            return crash->ts * 1000 + std::clamp<std::int64_t>(crash->ts_ms, 0, 999);
        }
    }
    // The record is gone, or was not written: the end of the stop line's second.
    return to_milliseconds(stop.ts) + 999;
}

/// The last line at that time or before, in whichever generation it stands by now.
LogPosition find_position_at_or_before(Logger& logger, LogPosition const& start,
                                       std::int64_t ts_ms) {
    std::vector<std::uint64_t> const generations =
        retained_generations(logger, start.generation, UINT64_MAX);
    for (auto generation = generations.rbegin(); generation != generations.rend(); ++generation) {
        if (std::uint64_t const line = find_log_line_at_or_before(logger, *generation, ts_ms)) {
            bool const before = *generation == start.generation && line < start.line;
            return before ? start : LogPosition{*generation, line};
        }
    }
    return start;
}

} // namespace

std::optional<SessionLogRange> resolve_session_log_range(Logger& logger,
                                                         std::string const& crash_log,
                                                         SessionRecord const& start,
                                                         std::optional<SessionRecord> const& stop) {
    if (start.log_line == 0 && start.generation == 0) {
        return std::nullopt;
    }
    SessionLogRange range;
    range.first = {start.generation, start.log_line};
    if (!stop) {
        // Counted in the file: a message of several lines is one to the logger's statistics.
        std::uint64_t const generation = logger.stats().generation;
        range.last = {generation, logger.read_lines(generation, UINT64_MAX, 0).total_lines};
    } else if (stop->log_line == 0 && stop->generation == 0) {
        range.last = find_position_at_or_before(logger, range.first,
                                                end_of_session_ms(crash_log, start, *stop));
    } else {
        range.last = {stop->generation, stop->log_line};
    }
    // A start right behind a rotation: its lines are those of the file from the first on.
    range.first.line = std::max<std::uint64_t>(range.first.line, 1);
    return range;
}

SessionLogText read_session_log(Logger& logger, SessionLogRange const& range) {
    auto const [first, last] = range;
    SessionLogText text;
    MissingNotes missing;
    std::uint64_t next = first.generation;
    for (std::uint64_t const generation :
         retained_generations(logger, first.generation, last.generation)) {
        missing.add(next, generation);
        next = generation + 1;
        bool const is_last = generation == last.generation;
        if (is_last && last.line == 0) {
            break; // the end lies right behind a rotation; to the logger, 0 means the file's end
        }
        LogRange lines = logger.read_lines(
            generation, generation == first.generation ? first.line : 1, is_last ? last.line : 0);
        if (!lines.available) {
            missing.add(generation, generation + 1);
        }
        std::move(lines.lines.begin(), lines.lines.end(), std::back_inserter(text.lines));
    }
    if (next <= last.generation) {
        missing.add(next, last.generation);
        if (last.line != 0) {
            missing.add(last.generation, last.generation + 1);
        }
    }
    text.missing = missing.take();
    return text;
}

std::uint64_t find_log_line_at_or_before(Logger& logger, std::uint64_t generation,
                                         std::int64_t ts_ms) {
    LogRange const log = logger.read_lines(generation, 1, 0);
    std::uint64_t found = 0;
    bool belongs = false; // a line without a time belongs to the one before it
    for (std::size_t i = 0; i < log.lines.size(); ++i) {
        if (auto const time = detail::parse_app_log_line_timestamp_ms(log.lines[i])) {
            belongs = *time <= ts_ms;
        }
        if (belongs) {
            found = i + 1;
        }
    }
    return found;
}

namespace detail {

std::optional<std::int64_t> parse_app_log_line_timestamp_ms(std::string const& line) {
    auto const stamp = find_time_stamp(line);
    return stamp ? to_milliseconds(*stamp) : std::nullopt;
}

} // namespace detail
} // namespace tessaron
