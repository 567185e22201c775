#include "logger/bus/logger_envelopes.hpp"

#include "bus/record_fields.hpp"

namespace tessaron {

using bus::RecordReader;
using bus::RecordWriter;

namespace {

unsigned number_of(LogLevel level) {
    return static_cast<unsigned>(level);
}

LogLevel level_in(RecordReader const& reader, std::string const& key, LogLevel fallback) {
    return static_cast<LogLevel>(
        reader.number<std::uint8_t>(key, static_cast<std::uint8_t>(fallback)));
}

} // namespace

std::optional<LogLevel> log_level_of(std::string const& number) {
    auto const level = parse_number<std::uint8_t>(number);
    if (!level || *level > static_cast<std::uint8_t>(LogLevel::ERROR)) {
        return std::nullopt;
    }
    return static_cast<LogLevel>(*level);
}

Bytes LoggerEntry::build() const {
    return RecordWriter()
        .number("severity", number_of(severity))
        .text("source", source)
        .text("message", message)
        .text("timestamp", timestamp)
        .number("listener_address", listener_address)
        .bytes();
}

LoggerEntry LoggerEntry::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    LoggerEntry entry;
    entry.severity = level_in(reader, "severity", entry.severity);
    entry.source = reader.text("source");
    entry.message = reader.text("message");
    entry.timestamp = reader.text("timestamp");
    entry.listener_address = reader.number<std::uint32_t>("listener_address");
    return entry;
}

Bytes LoggerLineEvent::build() const {
    return RecordWriter()
        .number("line_number", line_number)
        .text("text", text)
        .number("source_address", source_address)
        .number("generation", generation)
        .bytes();
}

LoggerLineEvent LoggerLineEvent::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.number<std::uint64_t>("line_number"), reader.text("text"),
            reader.number<std::uint32_t>("source_address"),
            reader.number<std::uint64_t>("generation")};
}

Bytes LogInfoRequest::build() const {
    return RecordWriter().bytes();
}

LogInfoRequest LogInfoRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {};
}

Bytes LogInfoReply::build() const {
    return RecordWriter()
        .status(ok, error)
        .text("path", path)
        .number("line_count", line_count)
        .number("file_size_bytes", file_size_bytes)
        .number("min_level", number_of(min_level))
        .number("generation", generation)
        .bytes();
}

LogInfoReply LogInfoReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    LogInfoReply reply;
    reply.ok = reader.ok();
    reply.error = reader.error();
    reply.path = reader.text("path");
    reply.line_count = reader.number<std::uint64_t>("line_count");
    reply.file_size_bytes = reader.number<std::uint64_t>("file_size_bytes");
    reply.min_level = level_in(reader, "min_level", reply.min_level);
    reply.generation = reader.number<std::uint64_t>("generation");
    return reply;
}

Bytes LogReadRequest::build() const {
    RecordWriter writer;
    writer.number("from_line", from_line).number("to_line", to_line);
    if (generation) {
        writer.number("generation", *generation);
    }
    return writer.bytes();
}

LogReadRequest LogReadRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    LogReadRequest request;
    request.from_line = reader.number<std::uint64_t>("from_line");
    request.to_line = reader.number<std::uint64_t>("to_line");
    if (reader.has("generation")) {
        request.generation = reader.number<std::uint64_t>("generation");
    }
    return request;
}

Bytes LogReadReply::build() const {
    return RecordWriter()
        .status(ok, error)
        .number("total_lines", total_lines)
        .number("from_line", from_line)
        .number("generation", generation)
        .text("available", available ? "1" : "0")
        .lines(lines)
        .bytes();
}

LogReadReply LogReadReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    LogReadReply reply;
    reply.ok = reader.ok();
    reply.error = reader.error();
    reply.total_lines = reader.number<std::uint64_t>("total_lines");
    reply.from_line = reader.number<std::uint64_t>("from_line");
    reply.generation = reader.number<std::uint64_t>("generation");
    reply.available = reader.text("available", "1") == "1";
    reply.lines = reader.lines();
    return reply;
}

Bytes LogLevelRequest::build() const {
    return RecordWriter().text("level", level).bytes();
}

LogLevelRequest LogLevelRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).text("level")};
}

Bytes LogLevelReply::build() const {
    RecordWriter writer;
    writer.status(ok, error);
    if (level) {
        writer.number("level", number_of(*level));
    }
    return writer.bytes();
}

LogLevelReply LogLevelReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.ok(), reader.error(), log_level_of(reader.text("level"))};
}

} // namespace tessaron
