#pragma once

#include "app/utilities/json_value.hpp"
#include "proto/bus/Bytes.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tessaron {

/// One installed package.
///
/// What is installed and what the operator wants is kept in `registry.json`; `pid` and
/// `started_at` describe this process's child and are never written.
struct PackageEntry {
    std::string name; ///< Also the key of the map.
    std::string version;
    std::string arch;
    std::string install_path;              ///< Absolute directory of the unpacked package.
    json::Value manifest;                  ///< The artifact's `manifest.json`, kept whole.
    std::vector<std::string> launch_args;  ///< Follow the executable's path in argv.
    std::int32_t pid = -1;                 ///< The running child; below 1 means there is none.
    std::int64_t started_at = 0;           ///< Seconds since the epoch of the last start.
    bool administratively_stopped = false; ///< An operator stopped it: it must not be respawned.
};

/// Installed packages by name. The order of the map is the order of the file and of every listing.
using PackageEntries = std::map<std::string, PackageEntry>;

/// The result of every package operation.
///
/// On the bus an envelope: "status" ("ok" or "error"), "error" unless it is empty, and the document
/// as text in the data. One that does not fit into a message is an error that says so.
struct PackageManagerReply {
    bool ok = false;
    std::string error; ///< For a human; begins with the operation's name. Empty on success.
    json::Value data;  ///< Result document; null when there is none.

    static PackageManagerReply success(json::Value data = {}) {
        return {true, {}, std::move(data)};
    }
    static PackageManagerReply failure(std::string error) { return {false, std::move(error), {}}; }

    proto::bus::Bytes build() const;
    /// Throws on a payload that is no envelope, and on data that are no JSON.
    static PackageManagerReply parse(proto::bus::Bytes const& payload);
};

/// What to install, and as what. The identity of the installed package is what stands here: the
/// artifact's manifest is not compared with it. On the bus as in package_envelopes.hpp.
struct PackageInstallRequest {
    std::string name;          ///< Required.
    std::string version;       ///< Required.
    std::string arch;          ///< Stored as given; may be empty.
    std::string artifact_path; ///< A gzip-compressed tar file on the local disk.
    bool start_after_install = true;

    proto::bus::Bytes build() const;
    static PackageInstallRequest parse(proto::bus::Bytes const& payload);
};

} // namespace tessaron
