#include "app/app_control_envelopes.hpp"

#include "bus/record_fields.hpp"

#include <algorithm>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

namespace tessaron {

using bus::RecordReader;
using bus::RecordWriter;

namespace {

constexpr char K_SEPARATOR = '\x1f';

/// Status and lines of a reply; an error has no lines.
template <typename Reply>
RecordWriter reply_with(Reply const& reply, std::vector<std::string> const& lines) {
    RecordWriter writer;
    writer.status(reply.ok, reply.error);
    if (reply.ok) {
        writer.lines(lines);
    }
    return writer;
}

template <typename Reply>
Reply reply_in(RecordReader const& reader) {
    Reply reply;
    reply.ok = reader.ok();
    reply.error = reader.error();
    return reply;
}

/// What stands behind the key, up to the next blank and off the line with it; nothing if the line
/// begins otherwise.
std::optional<std::string_view> take_word(std::string_view& line, std::string_view key) {
    if (!line.starts_with(key)) {
        return std::nullopt;
    }
    std::string_view const word = line.substr(key.size(), line.find(' ') - key.size());
    line.remove_prefix(std::min(key.size() + word.size() + 1, line.size()));
    return word;
}

std::optional<IncidentRecord> incident_in(std::string_view line) {
    auto const pid = take_word(line, "pid=");
    auto const ts = take_word(line, "ts=");
    auto const level = take_word(line, "level=");
    constexpr std::string_view message = "message=";
    if (!pid || !ts || !level || !line.starts_with(message)) {
        return std::nullopt;
    }
    auto const pid_number = parse_number<long>(*pid);
    auto const ts_number = parse_number<std::int64_t>(*ts);
    if (!pid_number || !ts_number) {
        return std::nullopt;
    }
    return IncidentRecord{*pid_number, *ts_number, std::string(*level),
                          std::string(line.substr(message.size()))};
}

} // namespace

Bytes RebootRequest::build() const {
    return RecordWriter().text("reason", reason).bytes();
}

RebootRequest RebootRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).text("reason")};
}

Bytes CrashTestRequest::build() const {
    return RecordWriter().text("reason", reason).bytes();
}

CrashTestRequest CrashTestRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).text("reason")};
}

Bytes SessionHistoryRequest::build() const {
    return RecordWriter().number("max_records", max_records).bytes();
}

SessionHistoryRequest SessionHistoryRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).number<std::uint64_t>("max_records")};
}

Bytes CrashHistoryRequest::build() const {
    return RecordWriter()
        .number("max_records", max_records)
        .number("skip_from_end", skip_from_end)
        .bytes();
}

CrashHistoryRequest CrashHistoryRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.number<std::uint64_t>("max_records"),
            reader.number<std::uint64_t>("skip_from_end")};
}

Bytes CrashIncidentRequest::build() const {
    return RecordWriter().number("pid", pid).number("ts", ts).bytes();
}

CrashIncidentRequest CrashIncidentRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.number<std::int64_t>("pid"), reader.number<std::int64_t>("ts")};
}

Bytes IncidentHistoryRequest::build() const {
    return RecordWriter().number("max_records", max_records).bytes();
}

IncidentHistoryRequest IncidentHistoryRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).number<std::uint64_t>("max_records")};
}

Bytes SessionLogRequest::build() const {
    return RecordWriter()
        .number("pid", pid)
        .number("log_line", log_line)
        .number("generation", generation)
        .number("skip_from_end", skip_from_end)
        .bytes();
}

SessionLogRequest SessionLogRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.number<std::int64_t>("pid"), reader.number<std::uint64_t>("log_line"),
            reader.number<std::uint64_t>("generation"),
            reader.number<std::uint64_t>("skip_from_end")};
}

Bytes AppControlStatusReply::build() const {
    return RecordWriter().status(ok, error).data(ok ? text : "").bytes();
}

AppControlStatusReply AppControlStatusReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<AppControlStatusReply>(reader);
    reply.text = reader.data();
    return reply;
}

Bytes SessionHistoryReply::build() const {
    std::vector<std::string> lines;
    for (SessionRecord const& record : records) {
        lines.push_back(record.is_start ? format_session_start(record)
                                        : format_session_stop(record));
    }
    return reply_with(*this, lines).bytes();
}

SessionHistoryReply SessionHistoryReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<SessionHistoryReply>(reader);
    for (std::string const& line : reader.lines()) {
        if (auto record = parse_session_line(line)) {
            reply.records.push_back(std::move(*record));
        }
    }
    return reply;
}

Bytes CrashHistoryReply::build() const {
    std::vector<std::string> lines;
    for (CrashRecord const& record : records) {
        lines.push_back(format_crash_header_line(record));
        if (!record.detail.empty()) {
            lines.push_back(std::string(K_CRASH_DETAIL_PREFIX) + record.detail);
        }
        lines.insert(lines.end(), record.backtrace.begin(), record.backtrace.end());
    }
    return reply_with(*this, lines).bytes();
}

CrashHistoryReply CrashHistoryReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<CrashHistoryReply>(reader);
    std::istringstream stream(reader.data());
    reply.records = detail::parse_crash_history_stream(stream, 0, 0);
    return reply;
}

Bytes CrashIncidentReply::build() const {
    return reply_with(*this, lines).bytes();
}

CrashIncidentReply CrashIncidentReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<CrashIncidentReply>(reader);
    reply.lines = reader.lines();
    return reply;
}

std::string format_incident_line(IncidentRecord const& record) {
    return "pid=" + std::to_string(record.pid) + " ts=" + std::to_string(record.ts) +
           " level=" + record.level + " message=" + one_line(record.message);
}

Bytes IncidentHistoryReply::build() const {
    std::vector<std::string> lines;
    std::transform(records.begin(), records.end(), std::back_inserter(lines), format_incident_line);
    return reply_with(*this, lines).bytes();
}

IncidentHistoryReply IncidentHistoryReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<IncidentHistoryReply>(reader);
    for (std::string const& line : reader.lines()) {
        if (auto record = incident_in(line)) {
            reply.records.push_back(std::move(*record));
        }
    }
    return reply;
}

Bytes TerminationReasonsReply::build() const {
    std::vector<std::string> lines;
    for (Reason const& reason : reasons) {
        lines.push_back(reason.name + K_SEPARATOR + reason.description);
    }
    return reply_with(*this, lines).bytes();
}

TerminationReasonsReply TerminationReasonsReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<TerminationReasonsReply>(reader);
    for (std::string const& line : reader.lines()) {
        auto const separator = line.find(K_SEPARATOR);
        reply.reasons.push_back(
            {line.substr(0, separator), separator == line.npos ? "" : line.substr(separator + 1)});
    }
    return reply;
}

Bytes SessionLogReply::build() const {
    return reply_with(*this, lines)
        .number("from_line", from_line)
        .number("total_lines", total_lines)
        .number("session_from_line", session_from_line)
        .number("session_to_line", session_to_line)
        .bytes();
}

SessionLogReply SessionLogReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    auto reply = reply_in<SessionLogReply>(reader);
    reply.lines = reader.lines();
    reply.from_line = reader.number<std::uint64_t>("from_line");
    reply.total_lines = reader.number<std::uint64_t>("total_lines");
    reply.session_from_line = reader.number<std::uint64_t>("session_from_line");
    reply.session_to_line = reader.number<std::uint64_t>("session_to_line");
    return reply;
}

} // namespace tessaron
