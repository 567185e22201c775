#include "package/package_envelopes.hpp"

#include "package/package_records.hpp"

#include <string>

namespace tessaron {

using bus::RecordReader;
using bus::RecordWriter;
using proto::bus::Bytes;

Bytes PackageNameRequest::build() const {
    return RecordWriter().text("name", name).bytes();
}

PackageNameRequest PackageNameRequest::parse(Bytes const& payload) {
    return {RecordReader(payload).text("name")};
}

Bytes PackageArgsRequest::build() const {
    json::Value const list = json::Value::Array(args.begin(), args.end());
    return RecordWriter().text("name", name).data(list.dump()).bytes();
}

PackageArgsRequest PackageArgsRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    PackageArgsRequest request{reader.text("name"), {}};
    if (std::string const text = reader.data(); !text.empty()) {
        json::Value const list = json::Value::parse(text);
        for (json::Value const& arg : list.as_array()) {
            request.args.push_back(arg.as_string(""));
        }
    }
    return request;
}

Bytes PackageInstallRequest::build() const {
    return RecordWriter()
        .text("name", name)
        .text("version", version)
        .text("arch", arch)
        .text("artifact_path", artifact_path)
        .number(K_START_AFTER_INSTALL_FIELD, start_after_install ? 1 : 0)
        .bytes();
}

PackageInstallRequest PackageInstallRequest::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.text("name"), reader.text("version"), reader.text("arch"),
            reader.text("artifact_path"), wants_start(reader)};
}

Bytes PackageManagerReply::build() const {
    std::string const text = data.is_null() ? "" : data.dump();
    if (text.size() > bus::K_MAX_RECORD_DATA) {
        return failure("reply too large for a message: " + std::to_string(text.size()) + " bytes")
            .build();
    }
    RecordWriter writer;
    writer.text("status", ok ? "ok" : "error");
    if (!error.empty()) {
        writer.text("error", error);
    }
    return writer.data(text).bytes();
}

PackageManagerReply PackageManagerReply::parse(Bytes const& payload) {
    RecordReader const reader(payload);
    std::string const text = reader.data();
    return {reader.ok(), reader.error(), text.empty() ? json::Value() : json::Value::parse(text)};
}

} // namespace tessaron
