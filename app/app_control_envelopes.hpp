#pragma once

#include "app/crash_history.hpp"
#include "app/incident_history.hpp"
#include "app/session_history.hpp"
#include "proto/bus/Bytes.hpp"

#include <cstdint>
#include <string>
#include <vector>

/// What an application is asked about itself on the bus, and answers. Each record is an envelope
/// with a field per member, lists and texts in its data, a line per entry; `parse` throws
/// `std::invalid_argument` on a payload that is none or has a number that is none, and a field that
/// is missing has the member's default. An answer that says "error" has no data.
namespace tessaron {

using proto::bus::Bytes;

struct RebootRequest {
    std::string reason;

    Bytes build() const;
    static RebootRequest parse(Bytes const& payload);
};

struct CrashTestRequest {
    std::string reason;

    Bytes build() const;
    static CrashTestRequest parse(Bytes const& payload);
};

struct SessionHistoryRequest {
    std::uint64_t max_records = 0; ///< 0 means as many as are allowed.

    Bytes build() const;
    static SessionHistoryRequest parse(Bytes const& payload);
};

struct CrashHistoryRequest {
    std::uint64_t max_records = 0;   ///< 0 means as many as are allowed.
    std::uint64_t skip_from_end = 0; ///< The newest that are left out.

    Bytes build() const;
    static CrashHistoryRequest parse(Bytes const& payload);
};

struct CrashIncidentRequest {
    std::int64_t pid = 0;
    std::int64_t ts = 0;

    Bytes build() const;
    static CrashIncidentRequest parse(Bytes const& payload);
};

struct IncidentHistoryRequest {
    std::uint64_t max_records = 0; ///< 0 means as many as are allowed.

    Bytes build() const;
    static IncidentHistoryRequest parse(Bytes const& payload);
};

/// The last session of a process, or that one of its sessions whose start stands at this place of
/// the log, where one of the two numbers is not 0.
struct SessionLogRequest {
    std::int64_t pid = 0;
    std::uint64_t log_line = 0;
    std::uint64_t generation = 0;
    std::uint64_t skip_from_end = 0; ///< The newest lines that are left out.

    Bytes build() const;
    static SessionLogRequest parse(Bytes const& payload);
};

/// What there is to say to an order, and the text for who asks how the application is.
struct AppControlStatusReply {
    bool ok = true;
    std::string error;
    std::string text;

    Bytes build() const;
    static AppControlStatusReply parse(Bytes const& payload);
};

struct SessionHistoryReply {
    bool ok = true;
    std::string error;
    std::vector<SessionRecord> records; ///< Oldest first, as in sessions.log.

    Bytes build() const;
    static SessionHistoryReply parse(Bytes const& payload);
};

struct CrashHistoryReply {
    bool ok = true;
    std::string error;
    std::vector<CrashRecord> records; ///< Oldest first, as in crash.log, without their traces.

    Bytes build() const;
    static CrashHistoryReply parse(Bytes const& payload);
};

struct CrashIncidentReply {
    bool ok = true;
    std::string error;
    std::vector<std::string> lines;

    Bytes build() const;
    static CrashIncidentReply parse(Bytes const& payload);
};

/// "pid=<n> ts=<s> level=<name> message=<text>", the text with its line breaks as blanks.
std::string format_incident_line(IncidentRecord const& record);

struct IncidentHistoryReply {
    bool ok = true;
    std::string error;
    std::vector<IncidentRecord> records; ///< Oldest first.

    Bytes build() const;
    /// A line of another form is passed over.
    static IncidentHistoryReply parse(Bytes const& payload);
};

/// How sessions may end.
struct TerminationReasonsReply {
    struct Reason {
        std::string name;
        std::string description;

        bool operator==(Reason const&) const = default;
    };

    bool ok = true;
    std::string error;
    std::vector<Reason> reasons; ///< On the wire name, the byte 1F, description.

    Bytes build() const;
    static TerminationReasonsReply parse(Bytes const& payload);
};

struct SessionLogReply {
    bool ok = true;
    std::string error; ///< Also where it is ok: what of the session is gone.
    std::vector<std::string> lines;
    std::uint64_t from_line = 0;   ///< Number of the first of `lines` among those of the session.
    std::uint64_t total_lines = 0; ///< Lines of the session that are left.
    std::uint64_t session_from_line = 0; ///< Of the session's start in its file.
    std::uint64_t session_to_line = 0;   ///< Of its end, in a later file perhaps.

    Bytes build() const;
    static SessionLogReply parse(Bytes const& payload);
};

} // namespace tessaron
