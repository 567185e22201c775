#include "app/config_envelopes.hpp"

#include "bus/record_fields.hpp"
#include "proto/bus/topic_description.hpp"

#include <algorithm>

namespace tessaron::config {

using bus::RecordReader;
using bus::RecordWriter;

namespace {

constexpr char K_SEPARATOR = '\x1f';
constexpr std::size_t K_PARTS = 6;

/// What would break the line is left out of it.
void append_part(std::string& line, std::string const& part) {
    std::string text = one_line(part);
    std::replace(text.begin(), text.end(), K_SEPARATOR, ' ');
    line.append(text).push_back(K_SEPARATOR);
}

std::string line_of(ConfigFieldInfo const& field) {
    std::string line;
    for (auto const* const part : {&field.name, &field.type, &field.value, &field.default_value}) {
        append_part(line, *part);
    }
    append_part(line, field.is_default ? "1" : "0");
    append_part(line, field.description);
    line.pop_back();
    return line;
}

} // namespace

Bytes ConfigListRequest::build() const {
    return RecordWriter().bytes();
}

ConfigListRequest ConfigListRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {};
}

Bytes ConfigListReply::build() const {
    RecordWriter writer;
    writer.status(ok, error);
    if (ok) {
        std::vector<std::string> lines;
        std::transform(fields.begin(), fields.end(), std::back_inserter(lines), line_of);
        lines.resize(bus::count_that_fit(lines.begin(), lines.end(),
                                         [](std::string const& line) { return line.size(); }));
        writer.lines(lines);
    }
    return writer.bytes();
}

ConfigListReply ConfigListReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    ConfigListReply reply;
    reply.ok = reader.ok();
    reply.error = reader.error();
    for (std::string const& line : reader.lines()) {
        auto const parts = proto::bus::detail::split_by_char(line, K_SEPARATOR);
        if (parts.size() < K_PARTS) {
            continue;
        }
        ConfigFieldInfo field;
        field.name = parts[0];
        field.type = parts[1];
        field.value = parts[2];
        field.default_value = parts[3];
        field.is_default = parts[4] == "1";
        field.description = parts[5];
        reply.fields.push_back(std::move(field));
    }
    return reply;
}

Bytes ConfigSetRequest::build() const {
    return RecordWriter().text("name", name).text("value", value).bytes();
}

ConfigSetRequest ConfigSetRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.text("name"), reader.text("value")};
}

Bytes ConfigSetReply::build() const {
    return RecordWriter().status(ok, error).bytes();
}

ConfigSetReply ConfigSetReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.ok(), reader.error()};
}

} // namespace tessaron::config
