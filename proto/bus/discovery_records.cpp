#include "proto/bus/discovery_records.hpp"

#include "proto/bus/wire_fields.hpp"

namespace proto::bus {

template <RecordOf<DiscoveryRecord> Record>
auto fields_of(Record& record) {
    return std::tie(record.name, record.address, record.hops, record.note);
}

template <RecordOf<HostedModuleInfo> Record>
auto fields_of(Record& module) {
    return std::tie(module.address, module.name, module.topics);
}

namespace {

/// Joins the lines of which the text has room, and writes the text.
template <typename Line, typename ToText>
void write_lines(Bytes& out, std::vector<Line> const& lines, ToText to_text) {
    std::string text;
    bool first = true;
    for (Line const& line : lines) {
        std::string const added = to_text(line);
        if (text.size() + (first ? 0 : 1) + added.size() > detail::K_MAX_U16) {
            continue;
        }
        if (!first) {
            text += '\n';
        }
        text += added;
        first = false;
    }
    detail::encode_string(out, text);
}

/// The text at hand; empty, with nothing left to read, when it is cut short.
std::string read_text(detail::FieldReader& in) {
    std::string text;
    if (!detail::read_field(in, text)) {
        in.cursor = in.size;
    }
    return text;
}

/// The whole entries of the list at hand; nothing is left to read when it is cut short.
template <typename Record>
std::vector<Record> read_list(detail::FieldReader& in) {
    std::vector<Record> records;
    if (!detail::read_field(in, records)) {
        in.cursor = in.size;
    }
    return records;
}

template <typename Record>
std::vector<Record> decode_list(std::uint8_t const* data, std::size_t size, std::size_t& cursor) {
    detail::FieldReader in{data, size, cursor};
    std::vector<Record> records = read_list<Record>(in);
    cursor = in.cursor;
    return records;
}

} // namespace

Bytes encode_identity_topics_and_roles(NodeIdentity const& identity,
                                       TopicsAndRoles const& content) {
    Bytes payload = encode_identity(identity);
    write_lines(payload, content.publications, encode_topic_description_line);
    write_lines(payload, content.subscriptions, encode_topic_description_line);
    encode_discovery_records(payload, content.records);
    write_lines(payload, content.roles, [](std::string const& role) { return role; });
    encode_module_list(payload, content.modules);
    return payload;
}

TopicsAndRoles decode_topics_and_roles_after_identity(Bytes const& payload) {
    detail::FieldReader in{payload.data(), payload.size(), sizeof(NodeIdentity)};
    TopicsAndRoles content;
    content.publications = split_topic_descriptions(read_text(in));
    content.subscriptions = split_topic_descriptions(read_text(in));
    content.records = read_list<DiscoveryRecord>(in);
    content.roles = split_lines(read_text(in));
    content.modules = read_list<HostedModuleInfo>(in);
    return content;
}

void encode_discovery_records(Bytes& out, std::vector<DiscoveryRecord> const& records) {
    detail::write_field(out, records);
}

void encode_module_list(Bytes& out, std::vector<HostedModuleInfo> const& modules) {
    detail::write_field(out, modules);
}

std::vector<DiscoveryRecord> decode_discovery_records(std::uint8_t const* data, std::size_t size,
                                                      std::size_t& cursor) {
    return decode_list<DiscoveryRecord>(data, size, cursor);
}

std::vector<HostedModuleInfo> decode_module_list(std::uint8_t const* data, std::size_t size,
                                                 std::size_t& cursor) {
    return decode_list<HostedModuleInfo>(data, size, cursor);
}

} // namespace proto::bus
