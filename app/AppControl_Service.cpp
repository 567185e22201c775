#include "app/AppControl.hpp"

#include "bus/record_fields.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <sstream>
#include <utility>

// What the application answers on the bus. Runs on the control client's request worker; reads the
// histories' files anew each time.

namespace tessaron {

namespace {

/// What was asked for, but no more than is allowed.
std::size_t limited(std::uint64_t wanted, std::size_t most) {
    return wanted == 0 || wanted > most ? most : static_cast<std::size_t>(wanted);
}

/// Drops the oldest entries until the rest fits into a message.
template <typename Entry, typename SizeOf>
void keep_newest_that_fit(std::vector<Entry>& entries, SizeOf size_of) {
    auto const count = bus::count_that_fit(entries.rbegin(), entries.rend(), size_of);
    entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(count));
}

std::size_t size_of_line(std::string const& line) {
    return line.size();
}

std::size_t size_of_session(SessionRecord const& record) {
    return (record.is_start ? format_session_start(record) : format_session_stop(record)).size();
}

std::size_t size_of_crash(CrashRecord const& record) {
    std::size_t size = format_crash_header_line(record).size() + 1 + K_CRASH_DETAIL_PREFIX.size() +
                       record.detail.size();
    for (std::string const& frame : record.backtrace) {
        size += frame.size() + 1;
    }
    return size;
}

std::string local_time(std::chrono::system_clock::time_point time) {
    std::time_t const seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

void tell_session(std::ostream& out, SessionRecord const& record) {
    out << "  [" << local_time(record.ts) << (record.is_start ? "] START pid=" : "] STOP  pid=")
        << record.pid;
    if (record.is_start) {
        out << " exe=" << record.exe << " user=" << record.user;
        if (!record.args.empty()) {
            out << " args=" << join(record.args, '|');
        }
    } else {
        out << " duration=" << record.duration_s.count() << "s reason=" << record.reason;
    }
    out << "\n";
}

SessionLogReply session_log_error(std::string const& text) {
    SessionLogReply reply;
    reply.ok = false;
    reply.error = text;
    return reply;
}

} // namespace

template <typename Request, typename Reply>
void AppControl::serve(std::string const& topic, Reply (AppControl::*answer)(Request const&),
                       std::string const& description) {
    serve_control_topic(
        topic,
        [this, answer](Bytes const& request) {
            return (this->*answer)(Request::parse(request)).build();
        },
        description);
}

void AppControl::serve_control_topic(std::string const& topic, ControlHandler handler,
                                     std::string const& description) {
    control_client_->serve(
        topic,
        [handler = std::move(handler)](Bytes const& request) {
            try {
                return handler(request);
            } catch (std::exception const& failure) {
                return AppControlStatusReply{false, failure.what(), ""}.build();
            }
        },
        description);
}

void AppControl::join_bus() {
    control_client_ = context_.hub().connect(
        context_.control_address(),
        proto::bus::make_identity("control", context_.app_name(), 1, "", ""));
    serve("reboot", &AppControl::answer_reboot,
          "Reboots this application (the owning app re-execs itself) - request payload is a "
          "RebootRequest Envelope (see app_control_envelopes), echoed into the session history");
    serve("crash_test", &AppControl::answer_crash_test,
          "Deliberately crashes this application shortly after replying (see RequestCrashTest()) - "
          "for end-to-end testing of crash detection/reporting, request payload is a "
          "CrashTestRequest Envelope (see app_control_envelopes)");
    serve_control_topic(
        "status",
        [this](Bytes const&) {
            return AppControlStatusReply{true, "", build_info_report()}.build();
        },
        "Returns this app's version and its last few session history records (start/stop times, "
        "durations, reasons), as plain text - see \"session_history\" for the structured "
        "equivalent");
    serve("session_history", &AppControl::answer_session_history,
          "Returns the last (up to) max_records session history records, structured (see "
          "app_control_envelopes's SessionHistoryReply) - the same records \"status\" already "
          "renders as plain text");
    serve("crash_history", &AppControl::answer_crash_history,
          "Returns the last (up to) max_records crash records (signal, faulting address, backtrace "
          "- see crash.log), structured (see app_control_envelopes's CrashHistoryReply)");
    serve("crash_incident", &AppControl::answer_crash_incident,
          "Returns the crash-time incident dump (recent log lines + recent bus traffic) for ONE "
          "crash, identified by pid+ts, structured (see app_control_envelopes's "
          "CrashIncidentReply)");
    serve("incident_history", &AppControl::answer_incident_history,
          "Returns the last (up to) max_records live ERROR-triggered incident report summaries "
          "(pid/ts/level/message, NOT the full backtrace/merged trace body), structured (see "
          "app_control_envelopes's IncidentHistoryReply)");
    serve("session_log", &AppControl::build_session_log_reply,
          "Returns the diagnostic log content belonging to ONE session, identified by pid alone - "
          "resolves this app's own SessionHistory() and app.log rotation state server-side (see "
          "BuildSessionLogReply()'s own doc comment), structured");
}

void AppControl::leave_bus() {
    control_client_.reset();
}

AppControlStatusReply AppControl::answer_reboot(RebootRequest const& request) {
    request_reboot(request.reason.empty() ? "bus command (no reason given)"
                                          : "bus command: " + request.reason);
    return {};
}

AppControlStatusReply AppControl::answer_crash_test(CrashTestRequest const& request) {
    request_crash_test(request.reason.empty() ? "manual crash test (bus command)"
                                              : "manual crash test: " + request.reason);
    return {};
}

SessionHistoryReply AppControl::answer_session_history(SessionHistoryRequest const& request) {
    SessionHistoryReply reply;
    reply.records = session_history(limited(request.max_records, K_SESSION_HISTORY_MAX));
    keep_newest_that_fit(reply.records, size_of_session);
    return reply;
}

CrashHistoryReply AppControl::answer_crash_history(CrashHistoryRequest const& request) {
    CrashHistoryReply reply;
    reply.records = crash_history(limited(request.max_records, K_CRASH_HISTORY_MAX),
                                  K_CRASH_BACKTRACE_MAX, request.skip_from_end);
    keep_newest_that_fit(reply.records, size_of_crash);
    return reply;
}

CrashIncidentReply AppControl::answer_crash_incident(CrashIncidentRequest const& request) {
    CrashIncidentReply reply;
    if (auto trace = crash_trace_for_record(crash_log_path(), request.pid, request.ts)) {
        reply.lines = std::move(*trace);
        keep_newest_that_fit(reply.lines, size_of_line);
    } else {
        reply.ok = false;
        reply.error = "crash record not found (pid " + std::to_string(request.pid) + ", ts " +
                      std::to_string(request.ts) + ")";
    }
    return reply;
}

IncidentHistoryReply AppControl::answer_incident_history(IncidentHistoryRequest const& request) {
    IncidentHistoryReply reply;
    reply.records = incident_history(limited(request.max_records, K_INCIDENT_HISTORY_MAX));
    keep_newest_that_fit(reply.records, [](IncidentRecord const& record) {
        return format_incident_line(record).size();
    });
    return reply;
}

std::string AppControl::build_info_report() const {
    std::string const version = context_.version();
    std::ostringstream out;
    out << context_.app_name() << " version " << version << "\n";
    out << "ambrelight version " << version.substr(0, version.find('-')) << "\n";
    auto const records = session_history(K_STATUS_SESSIONS);
    if (records.empty()) {
        out << "(no session history yet)\n";
    } else {
        out << "Last " << records.size() << " session record(s):\n";
    }
    for (SessionRecord const& record : records) {
        tell_session(out, record);
    }
    return out.str();
}

std::optional<Session> AppControl::find_session(SessionLogRequest const& request) const {
    auto records = session_history(0);
    if (request.log_line != 0 || request.generation != 0) {
        // From the start that is meant up to the process's next one.
        auto const is_start = [&request](SessionRecord const& record) {
            return record.is_start && record.pid == request.pid;
        };
        auto const begin = std::find_if(records.begin(), records.end(), [&](auto const& record) {
            return is_start(record) && record.log_line == request.log_line &&
                   record.generation == request.generation;
        });
        records.erase(records.begin(), begin);
        if (!records.empty()) {
            records.erase(std::find_if(records.begin() + 1, records.end(), is_start),
                          records.end());
        }
    }
    return find_last_session(records, request.pid);
}

SessionLogReply AppControl::build_session_log_reply(SessionLogRequest const& request) {
    auto const session = find_session(request);
    if (!session) {
        return session_log_error("session not found (pid " + std::to_string(request.pid) + ")");
    }
    auto const range = resolve_session_log_range(context_.logger(), crash_log_path(),
                                                 session->start, session->stop);
    if (!range) {
        return session_log_error("no log range recorded for this session");
    }
    SessionLogText text = read_session_log(context_.logger(), *range);
    SessionLogReply reply;
    reply.error = text.missing.empty() ? "" : "partial log - " + text.missing;
    reply.total_lines = text.lines.size();
    reply.session_from_line = range->first.line;
    reply.session_to_line = range->last.line;
    reply.lines = std::move(text.lines);
    reply.lines.resize(reply.lines.size() -
                       std::min<std::uint64_t>(reply.lines.size(), request.skip_from_end));
    std::size_t const last = reply.lines.size();
    keep_newest_that_fit(reply.lines, size_of_line);
    reply.from_line = reply.lines.empty() ? 0 : last - reply.lines.size() + 1;
    return reply;
}

} // namespace tessaron
