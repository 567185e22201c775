#pragma once

#include "bus/record_fields.hpp"
#include "proto/bus/Bytes.hpp"

#include <string>
#include <vector>

/// What the package service is asked on the bus, beside `PackageInstallRequest` and
/// `PackageManagerReply`, which stand in package_records.hpp. Each record is an envelope: `parse`
/// throws `std::invalid_argument` on a payload that is none, leaves the member's default where a
/// field is missing, and passes over fields that it does not know.
namespace tessaron {

struct PackageNameRequest {
    std::string name;

    proto::bus::Bytes build() const;
    static PackageNameRequest parse(proto::bus::Bytes const& payload);
};

/// The arguments are the data: a JSON array. Without data there are none, an element that is no
/// string is an empty one, and text that is no JSON is refused by an exception of its parser.
struct PackageArgsRequest {
    std::string name;
    std::vector<std::string> args;

    proto::bus::Bytes build() const;
    static PackageArgsRequest parse(proto::bus::Bytes const& payload);
};

/// A package is started unless its request says otherwise, with exactly "0".
inline constexpr char const* K_START_AFTER_INSTALL_FIELD = "start_after_install";

inline bool wants_start(bus::RecordReader const& request) {
    return request.text(K_START_AFTER_INSTALL_FIELD) != "0";
}

} // namespace tessaron
