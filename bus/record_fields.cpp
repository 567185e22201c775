#include "bus/record_fields.hpp"

#include "proto/bus/topic_description.hpp"

namespace tessaron::bus {

RecordWriter& RecordWriter::status(bool ok, std::string const& error) {
    text("status", ok ? "ok" : "error");
    return ok && error.empty() ? *this : text("error", error);
}

RecordWriter& RecordWriter::data(std::string_view bytes) {
    envelope_.data.assign(bytes.begin(), bytes.end());
    return *this;
}

RecordWriter& RecordWriter::lines(std::vector<std::string> const& lines) {
    return data(proto::bus::join_lines(lines));
}

std::string RecordReader::text(std::string const& key, std::string const& fallback) const {
    auto const found = envelope_.fields.find(key);
    return found == envelope_.fields.end() ? fallback : found->second;
}

std::vector<std::string> RecordReader::lines() const {
    return proto::bus::split_lines(data());
}

} // namespace tessaron::bus
