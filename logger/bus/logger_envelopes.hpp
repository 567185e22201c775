#pragma once

#include "logger/LogLevel.hpp"
#include "proto/bus/Bytes.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the logger says and answers on the bus. Each record is an envelope with a field per member;
/// `parse` throws `std::invalid_argument` on a payload that is none, and a field that is missing
/// has the member's default.
namespace tessaron {

using proto::bus::Bytes;

/// A message of a named source, on its way to the logger that writes it.
struct LoggerEntry {
    LogLevel severity = LogLevel::INFO; ///< Any number of a byte; those above ERROR are no level.
    std::string source;
    std::string message;
    std::string timestamp;              ///< When it was logged, as the source has it.
    std::uint32_t listener_address = 0; ///< Who is to take it.

    Bytes build() const;
    static LoggerEntry parse(Bytes const& payload);
};

/// A line that was written to the log.
struct LoggerLineEvent {
    std::uint64_t line_number = 0; ///< counted from 1 within the file
    std::string text;
    std::uint32_t source_address = 0; ///< That of the listener in front of the log.
    std::uint64_t generation = 0;

    Bytes build() const;
    static LoggerLineEvent parse(Bytes const& payload);
};

struct LogInfoRequest {
    Bytes build() const;
    static LogInfoRequest parse(Bytes const& payload);
};

struct LogInfoReply {
    bool ok = true;
    std::string error;
    std::string path; ///< empty while the log is on the console
    std::uint64_t line_count = 0;
    std::uint64_t file_size_bytes = 0;
    LogLevel min_level = LogLevel::TRACE;
    std::uint64_t generation = 0;

    Bytes build() const;
    static LogInfoReply parse(Bytes const& payload);
};

/// Lines counted from 1 within a file, both included; a `from_line` of 0 means 1, a `to_line` of 0
/// the end.
struct LogReadRequest {
    std::uint64_t from_line = 0;
    std::uint64_t to_line = 0;
    std::optional<std::uint64_t> generation; ///< Without one, the current file.

    Bytes build() const;
    static LogReadRequest parse(Bytes const& payload);
};

struct LogReadReply {
    bool ok = true;
    std::string error;
    std::uint64_t total_lines = 0; ///< in the whole file
    std::uint64_t from_line = 0;   ///< number of the first of `lines`; 0 if there is none
    std::uint64_t generation = 0;
    bool available = true; ///< false: that generation does not exist any more
    std::vector<std::string> lines;

    Bytes build() const;
    static LogReadReply parse(Bytes const& payload);
};

/// Asks for another minimum level.
struct LogLevelRequest {
    std::string level; ///< As it was said; see `log_level_of`.

    Bytes build() const;
    static LogLevelRequest parse(Bytes const& payload);
};

/// The answer to both: what the level is, or whether it was set.
struct LogLevelReply {
    bool ok = true;
    std::string error;
    std::optional<LogLevel> level;

    Bytes build() const;
    static LogLevelReply parse(Bytes const& payload);
};

/// "0" to "3"; nothing for any other text.
std::optional<LogLevel> log_level_of(std::string const& number);

} // namespace tessaron
