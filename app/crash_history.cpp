#include "app/crash_history.hpp"

#include "app/utilities/BackwardLineReader.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/line_text.hpp"
#include "logger/LineReader.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <deque>
#include <fcntl.h>
#include <iterator>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace tessaron {
namespace {

constexpr std::string_view K_HEX = "0x";

struct TextField {
    std::string_view key;
    std::string CrashRecord::*value;
};

/// The build stamp, in the order of the header.
constexpr TextField K_BUILD_FIELDS[] = {
    {"version", &CrashRecord::version},
    {"build_ts", &CrashRecord::build_ts},
    {"build_machine", &CrashRecord::build_machine},
    {"build_user", &CrashRecord::build_user},
    {"commit", &CrashRecord::commit},
    {"build_type", &CrashRecord::build_type},
    {"compiler", &CrashRecord::compiler},
};

bool is_header(std::string_view line) {
    return line.starts_with(K_CRASH_HEADER);
}

/// A blank would end the value, and a line break the header.
std::string without_blanks(std::string_view value) {
    std::string text = one_line(value);
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

template <typename T>
void take_number(std::string_view value, T& field) {
    field = parse_number<T>(value).value_or(field);
}

void take_field(std::string_view key, std::string_view value, CrashRecord& record) {
    if (key == "signum") {
        take_number(value, record.signum);
    } else if (key == "pid") {
        take_number(value, record.pid);
    } else if (key == "ts") {
        take_number(value, record.ts);
    } else if (key == "ts_ms") {
        take_number(value, record.ts_ms);
    } else if (key == "addr") {
        if (value.starts_with(K_HEX)) {
            record.addr = parse_number<std::uint64_t>(value.substr(K_HEX.size()), 16);
        }
    } else {
        auto const* const field =
            std::find_if(std::begin(K_BUILD_FIELDS), std::end(K_BUILD_FIELDS),
                         [&](TextField const& known) { return known.key == key; });
        if (field != std::end(K_BUILD_FIELDS)) {
            record.*field->value = value;
        }
    }
}

/// Puts records together from the lines of a crash log. Holds no more than are asked for.
class CrashLogParser {
public:
    CrashLogParser(std::size_t max_records, std::size_t max_backtrace)
        : max_records_(max_records), max_backtrace_(max_backtrace) {}

    void feed(std::string_view line) {
        line = without_carriage_returns(line);
        if (is_header(line)) {
            begin_record(line);
        } else if (records_.empty() || in_trace_) {
            return;
        } else if (line == K_CRASH_TRACE_HEADER) {
            in_trace_ = true;
        } else if (line.starts_with(K_CRASH_DETAIL_PREFIX)) {
            records_.back().detail = line.substr(K_CRASH_DETAIL_PREFIX.size());
        } else if (auto& backtrace = records_.back().backtrace;
                   max_backtrace_ == 0 || backtrace.size() < max_backtrace_) {
            backtrace.emplace_back(line);
        }
    }

    std::vector<CrashRecord> take() {
        return {std::make_move_iterator(records_.begin()), std::make_move_iterator(records_.end())};
    }

private:
    void begin_record(std::string_view header) {
        in_trace_ = false;
        if (max_records_ != 0 && records_.size() == max_records_) {
            records_.pop_front();
        }
        detail::parse_crash_header_line(header, records_.emplace_back());
    }

    std::size_t const max_records_;
    std::size_t const max_backtrace_;
    std::deque<CrashRecord> records_;
    bool in_trace_ = false;
};

/// Calls `visit` with each header line and its offset, from the newest on, until it returns false.
template <typename Visit>
void visit_headers_backwards(int fd, Visit visit) {
    BackwardLineReader reader(fd);
    while (auto const line = reader.next()) {
        if (is_header(*line) && !visit(*line, reader.offset())) {
            return;
        }
    }
}

/// Reads on from `offset`; a file that cannot be seeked in has no lines.
template <typename Take>
void read_lines_from(int fd, std::uint64_t offset, Take take) {
    if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
        return;
    }
    LineReader reader(fd, offset);
    while (auto const line = reader.next()) {
        if (!take(*line)) {
            return;
        }
    }
}

std::vector<std::string> read_trace(int fd, std::uint64_t header_offset) {
    std::vector<std::string> trace;
    bool in_trace = false;
    read_lines_from(fd, header_offset, [&, is_first = true](std::string_view line) mutable {
        line = without_carriage_returns(line);
        if (is_header(line)) {
            return std::exchange(is_first, false); // the next one ends the record
        }
        if (in_trace) {
            trace.emplace_back(line);
        }
        in_trace = in_trace || line == K_CRASH_TRACE_HEADER;
        return true;
    });
    return trace;
}

/// Where the part of an oversized log that is to be kept begins: at the oldest record from which on
/// it is small enough, or at the newest. Nothing if there is only one record.
std::optional<std::uint64_t> start_of_kept_part(int fd, std::uint64_t size) {
    std::size_t records = 0;
    std::uint64_t begin = 0;
    visit_headers_backwards(fd, [&](std::string_view, std::uint64_t offset) {
        ++records;
        bool const fits = size - offset <= K_CRASH_LOG_MAX_SIZE;
        if (fits || records == 1) {
            begin = offset;
        }
        return fits || records == 1;
    });
    return records < 2 ? std::nullopt : std::optional(begin);
}

std::optional<std::string> read_tail(int fd, std::uint64_t offset) {
    std::string text;
    read_lines_from(fd, offset, [&text](std::string_view line) {
        text.append(line).push_back('\n');
        return true;
    });
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

} // namespace

std::string crash_address_text(CrashRecord const& record) {
    if (!record.addr) {
        return "";
    }
    std::array<char, 16> digits{};
    auto const end =
        std::to_chars(digits.data(), digits.data() + digits.size(), *record.addr, 16).ptr;
    return std::string(K_HEX).append(digits.data(), end);
}

std::string format_crash_header_line(CrashRecord const& record) {
    std::string line(K_CRASH_HEADER);
    line += " signum=" + std::to_string(record.signum) + " pid=" + std::to_string(record.pid) +
            " ts=" + std::to_string(record.ts) + " ts_ms=" + std::to_string(record.ts_ms);
    if (record.addr) {
        line += " addr=" + crash_address_text(record);
    }
    for (TextField const& field : K_BUILD_FIELDS) {
        line.append(" ").append(field.key).append("=").append(without_blanks(record.*field.value));
    }
    return line;
}

std::vector<CrashRecord> read_crash_history(std::string const& path, std::size_t max_records,
                                            std::size_t max_backtrace) {
    UniqueFd const file = open_file(path, O_RDONLY);
    std::uint64_t begin = 0;
    if (max_records != 0) {
        visit_headers_backwards(
            file.get(), [&, left = max_records](std::string_view, std::uint64_t at) mutable {
                begin = at;
                return --left != 0;
            });
    }
    CrashLogParser parser(max_records, max_backtrace);
    read_lines_from(file.get(), begin, [&parser](std::string_view line) {
        parser.feed(line);
        return true;
    });
    return parser.take();
}

std::optional<std::vector<std::string>> crash_trace_for_record(std::string const& path, long pid,
                                                               std::int64_t ts) {
    UniqueFd const file = open_file(path, O_RDONLY);
    std::optional<std::uint64_t> found;
    visit_headers_backwards(file.get(), [&](std::string_view line, std::uint64_t offset) {
        CrashRecord record;
        if (detail::parse_crash_header_line(line, record) && record.pid == pid && record.ts == ts) {
            found = offset;
        }
        return !found;
    });
    if (!found) {
        return std::nullopt;
    }
    return read_trace(file.get(), *found);
}

std::optional<std::vector<std::string>> crash_trace_for_record(std::string const& path,
                                                               CrashRecord const& record) {
    return crash_trace_for_record(path, record.pid, record.ts);
}

namespace detail {

bool parse_crash_header_line(std::string_view line, CrashRecord& record) {
    line = without_carriage_returns(line);
    if (!is_header(line)) {
        return false;
    }
    line.remove_prefix(K_CRASH_HEADER.size());
    while (!line.empty()) {
        std::string_view const word = line.substr(0, line.find(' '));
        if (auto const equals = word.find('='); equals != word.npos) {
            take_field(word.substr(0, equals), word.substr(equals + 1), record);
        }
        line.remove_prefix(std::min(word.size() + 1, line.size()));
    }
    return true;
}

std::vector<CrashRecord> parse_crash_history_stream(std::istream& stream, std::size_t max_records,
                                                    std::size_t max_backtrace) {
    CrashLogParser parser(max_records, max_backtrace);
    for (std::string line; std::getline(stream, line);) {
        parser.feed(line);
    }
    return parser.take();
}

void enforce_crash_log_max_size(std::string const& path) {
    UniqueFd const file = open_file(path, O_RDONLY);
    off_t const end = lseek(file.get(), 0, SEEK_END);
    if (end <= static_cast<off_t>(K_CRASH_LOG_MAX_SIZE)) {
        return;
    }
    // A last line without a newline gets one, so it counts as if it had it.
    char last = '\n';
    std::ignore = pread(file.get(), &last, 1, end - 1); // unread, it is taken for whole
    std::uint64_t const size = static_cast<std::uint64_t>(end) + (last == '\n' ? 0 : 1);

    auto const begin = start_of_kept_part(file.get(), size);
    if (!begin || *begin == 0) {
        return;
    }
    if (auto const kept = read_tail(file.get(), *begin)) {
        // Written aside, so that the history is not lost if that fails; then it stays too long.
        std::ignore = replace_file_durably(path, *kept);
    }
}

} // namespace detail
} // namespace tessaron
