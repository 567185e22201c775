#include "app/session_history.hpp"

#include "app/utilities/BackwardLineReader.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/line_text.hpp"
#include "logger/LineReader.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tessaron {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

constexpr char K_ARGUMENT_SEPARATOR = '|';
/// Room made in advance for the records asked for; the file may hold fewer.
constexpr std::size_t K_RESERVED = 256;
constexpr std::string_view K_RUNTIME = " runtime=";
constexpr std::string_view K_ARGS = " args=";
constexpr std::string_view K_REASON = " reason=";

std::vector<std::string> split_arguments(std::string_view joined) {
    std::vector<std::string> args;
    if (joined.empty()) {
        return args;
    }
    for (;;) {
        std::size_t const separator = joined.find(K_ARGUMENT_SEPARATOR);
        args.emplace_back(joined.substr(0, separator));
        if (separator == joined.npos) {
            return args;
        }
        joined.remove_prefix(separator + 1);
    }
}

std::string seconds_text(system_clock::time_point time) {
    return std::to_string(std::chrono::floor<seconds>(time.time_since_epoch()).count());
}

std::string position_text(SessionRecord const& record) {
    return " log_line=" + std::to_string(record.log_line) +
           " generation=" + std::to_string(record.generation);
}

/// Nothing for a time that the clock's finer unit cannot hold.
std::optional<system_clock::time_point> parse_seconds(std::string_view text) {
    auto const count = parse_number<std::int64_t>(text);
    constexpr auto limit = std::chrono::floor<seconds>(system_clock::duration::max()).count();
    if (!count || *count > limit || *count < -limit) {
        return std::nullopt;
    }
    return system_clock::time_point(seconds(*count));
}

/// The words of a line's first part, where the short values stand.
///
/// The value of a text field reaches over the words behind it that are no "key=value": a path with
/// blanks in it reads back whole. Of a key that comes twice the first one counts, since the values
/// behind the numbers that matter (a directory's name) may look like anything.
class HeadParser {
public:
    /// False if a number cannot be read, or one without which the record is worth nothing is
    /// missing.
    bool parse(std::string_view head, SessionRecord& record) {
        for (std::size_t begin = 0; begin < head.size();) {
            std::size_t const end = std::min(head.find(' ', begin), head.size());
            if (!take_word(head, begin, end, record)) {
                return false;
            }
            begin = end + 1;
        }
        return seen(TS) && seen(PID);
    }

private:
    enum Key : unsigned { EVENT, TS, PID, EXE, USER, CWD, DURATION, LOG_LINE, GENERATION, KEYS };
    static constexpr std::string_view K_NAMES[KEYS] = {
        "event", "ts", "pid", "exe", "user", "cwd", "duration_s", "log_line", "generation"};

    bool seen(Key key) const { return (seen_ >> key & 1U) != 0; }

    bool take_word(std::string_view head, std::size_t begin, std::size_t end,
                   SessionRecord& record) {
        std::string_view const word = head.substr(begin, end - begin);
        std::size_t const equals = word.find('=');
        if (equals == word.npos) {
            if (continued_ != nullptr && !word.empty()) {
                *continued_ = head.substr(value_begin_, end - value_begin_);
            }
            return true;
        }
        continued_ = nullptr;
        auto const* const name =
            std::find(std::begin(K_NAMES), std::end(K_NAMES), word.substr(0, equals));
        auto const key = static_cast<Key>(name - std::begin(K_NAMES));
        if (key == KEYS || seen(key)) {
            return true;
        }
        seen_ |= 1U << key;
        value_begin_ = begin + equals + 1;
        return take_value(key, word.substr(equals + 1), record);
    }

    bool take_value(Key key, std::string_view value, SessionRecord& record) {
        switch (key) {
        case TS:
            return take(parse_seconds(value), record.ts);
        case PID:
            return take(parse_number<long>(value), record.pid);
        case EXE:
            return take_text(value, record.exe);
        case USER:
            return take_text(value, record.user);
        case CWD:
            return take_text(value, record.cwd);
        case DURATION: {
            auto const count = parse_number<std::int64_t>(value);
            record.duration_s = seconds(count.value_or(0));
            return count.has_value();
        }
        case LOG_LINE:
            return take(parse_number<std::uint64_t>(value), record.log_line);
        case GENERATION:
            return take(parse_number<std::uint64_t>(value), record.generation);
        case EVENT:
        case KEYS:
            break;
        }
        return true;
    }

    template <typename T>
    static bool take(std::optional<T> const& value, T& field) {
        field = value.value_or(field);
        return value.has_value();
    }

    bool take_text(std::string_view value, std::string& field) {
        field = value;
        continued_ = &field;
        return true;
    }

    unsigned seen_ = 0;
    std::string* continued_ = nullptr; ///< the field that words without a key belong to
    std::size_t value_begin_ = 0;
};

/// The value of the line's first word "event=".
std::string_view event_of(std::string_view line) {
    constexpr std::string_view key = "event=";
    while (!line.empty()) {
        std::string_view const word = line.substr(0, line.find(' '));
        if (word.starts_with(key)) {
            return word.substr(key.size());
        }
        line.remove_prefix(std::min(word.size() + 1, line.size()));
    }
    return {};
}

/// Cuts the text behind the first `key` off the line and returns it.
std::optional<std::string_view> cut_behind(std::string_view& line, std::string_view key) {
    std::size_t const at = line.find(key);
    if (at == line.npos) {
        return std::nullopt;
    }
    std::string_view const value = line.substr(at + key.size());
    line = line.substr(0, at);
    return value;
}

std::vector<SessionRecord> read_all_records(int fd) {
    std::vector<SessionRecord> records;
    LineReader reader(fd);
    while (auto const line = reader.next()) {
        if (auto record = parse_session_line(*line)) {
            records.push_back(std::move(*record));
        }
    }
    return records;
}

/// Whether the file has a last line without a newline.
bool ends_within_a_line(int fd) {
    struct stat status {};
    char last = '\n';
    return fstat(fd, &status) == 0 && status.st_size > 0 &&
           pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

} // namespace

std::string format_session_start(SessionRecord const& record) {
    return one_line("event=start ts=" + seconds_text(record.ts) + " pid=" +
                    std::to_string(record.pid) + " exe=" + record.exe + " user=" + record.user +
                    " cwd=" + record.cwd + position_text(record) + std::string(K_RUNTIME) +
                    record.runtime + std::string(K_ARGS) + join(record.args, K_ARGUMENT_SEPARATOR));
}

std::string format_session_stop(SessionRecord const& record) {
    return one_line(
        "event=stop ts=" + seconds_text(record.ts) + " pid=" + std::to_string(record.pid) +
        " duration_s=" + std::to_string(record.duration_s.count()) + position_text(record) +
        std::string(K_RUNTIME) + record.runtime + std::string(K_REASON) + record.reason);
}

std::optional<SessionRecord> parse_session_line(std::string_view line) {
    line = without_carriage_returns(line);
    if (line.find_first_of("\r\n") != line.npos) {
        return parse_session_line(one_line(line)); // as it would have been written
    }
    std::string_view const event = event_of(line);
    if (event != "start" && event != "stop") {
        return std::nullopt;
    }
    SessionRecord record;
    record.is_start = event == "start";

    // The free texts are cut off from the front, so that the last one may hold any of the keys.
    std::string_view const last_key = record.is_start ? K_ARGS : K_REASON;
    std::optional<std::string_view> last;
    if (line.find(K_RUNTIME) < line.find(last_key)) {
        std::string_view runtime = *cut_behind(line, K_RUNTIME);
        last = cut_behind(runtime, last_key);
        record.runtime = runtime;
    } else {
        last = cut_behind(line, last_key);
    }
    if (record.is_start) {
        record.args = split_arguments(last.value_or(""));
    } else {
        record.reason = last.value_or("");
    }
    if (!HeadParser().parse(line, record)) {
        return std::nullopt;
    }
    return record;
}

bool append_session_line(std::string const& path, std::string_view line) {
    UniqueFd const file = open_file(path, O_RDWR | O_APPEND | O_CREAT);
    if (!file.is_open()) {
        return false;
    }
    std::string text(ends_within_a_line(file.get()) ? "\n" : "");
    text.append(line).push_back('\n');
    return write_all(file.get(), text);
}

std::vector<SessionRecord> read_session_history(std::string const& path, std::size_t max) {
    UniqueFd const file = open_file(path, O_RDONLY);
    if (!file.is_open()) {
        return {};
    }
    if (max == 0) {
        return read_all_records(file.get());
    }
    std::vector<SessionRecord> records;
    records.reserve(std::min(max, K_RESERVED));
    BackwardLineReader reader(file.get());
    while (records.size() < max) {
        auto const line = reader.next();
        if (!line) {
            break;
        }
        if (auto record = parse_session_line(*line)) {
            records.push_back(std::move(*record));
        }
    }
    std::reverse(records.begin(), records.end());
    return records;
}

std::optional<Session> find_last_session(std::vector<SessionRecord> const& records,
                                         std::optional<long> pid) {
    auto const start = std::find_if(records.rbegin(), records.rend(), [&](SessionRecord const& r) {
        return r.is_start && (!pid || r.pid == *pid);
    });
    if (start == records.rend()) {
        return std::nullopt;
    }
    // No other start of this pid stands behind the last one.
    auto const stop = std::find_if(start.base(), records.end(), [&](SessionRecord const& r) {
        return !r.is_start && r.pid == start->pid;
    });
    return Session{*start, stop == records.end() ? std::nullopt : std::optional(*stop)};
}

} // namespace tessaron
