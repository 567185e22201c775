#pragma once

#include "app/config_field.hpp"
#include "proto/bus/Bytes.hpp"

#include <string>
#include <vector>

/// What the configuration says and answers on the bus. Each record is an envelope; `parse` throws
/// `std::invalid_argument` on a payload that is none, and a field that is missing has the member's
/// default.
namespace tessaron::config {

using proto::bus::Bytes;

struct ConfigListRequest {
    Bytes build() const;
    static ConfigListRequest parse(Bytes const& payload);
};

/// On the wire a line per field: name, type, value, default, "1" or "0" for the flag, description,
/// with the byte 1F between any two. A 1F or a line break within one of them becomes a blank.
struct ConfigListReply {
    bool ok = true;
    std::string error;
    std::vector<ConfigFieldInfo> fields; ///< those that fit into a message

    Bytes build() const;
    /// A line with too few parts is passed over.
    static ConfigListReply parse(Bytes const& payload);
};

struct ConfigSetRequest {
    std::string name;
    std::string value;

    Bytes build() const;
    static ConfigSetRequest parse(Bytes const& payload);
};

struct ConfigSetReply {
    bool ok = true;
    std::string error;

    Bytes build() const;
    static ConfigSetReply parse(Bytes const& payload);
};

} // namespace tessaron::config
