#include "MirelClientApp/FetchInstallRequest.hpp"

#include "package/package_envelopes.hpp"

using tessaron::K_START_AFTER_INSTALL_FIELD;
using tessaron::bus::RecordReader;
using tessaron::bus::RecordWriter;

proto::bus::Bytes FetchInstallRequest::build() const {
    return RecordWriter()
        .text("name", name)
        .text("version", version)
        .text("arch", arch)
        .text("channel", channel)
        .number(K_START_AFTER_INSTALL_FIELD, start_after_install ? 1 : 0)
        .bytes();
}

FetchInstallRequest FetchInstallRequest::parse(proto::bus::Bytes const& payload) {
    RecordReader const reader(payload);
    return {reader.text("name"), reader.text("version"), reader.text("arch"),
            reader.text("channel"), tessaron::wants_start(reader)};
}
