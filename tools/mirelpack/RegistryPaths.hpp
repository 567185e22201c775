#pragma once

#include "tools/mirelpack/BuildId.hpp"

#include <string>

namespace mirelpack {

/// Where everything stands in a registry folder:
///
///     packages.json                          {"packages":[name...]}
///     packages/<name>/channels.json          {"channels":[channel...]}
///     packages/<name>/<channel>/versions.json
///                                            {"versions":[{"arch","manifest","version"}...]}
///     packages/<name>/<channel>/<version>/<arch>/artifact
///     packages/<name>/<channel>/<version>/<arch>/manifest.json
///     .lock                                  held by whoever changes the folder
///     .incoming/                             work of the holder of the lock
///
/// Thread safety: immutable after construction.
class RegistryPaths {
public:
    explicit RegistryPaths(std::string root) : root_(std::move(root)) {}

    std::string const& root() const { return root_; }
    std::string lock() const { return root_ + "/.lock"; }
    std::string incoming() const { return root_ + "/.incoming"; }
    /// Names the build that is being changed, so that a killed change can be finished.
    std::string journal() const { return incoming() + "/journal.json"; }
    std::string stage() const { return incoming() + "/build"; }
    std::string trash() const { return incoming() + "/trash"; }

    std::string packages_index() const { return root_ + "/packages.json"; }
    std::string packages() const { return root_ + "/packages"; }
    std::string package(std::string const& name) const { return packages() + "/" + name; }
    std::string channels_index(std::string const& name) const {
        return package(name) + "/channels.json";
    }
    std::string channel(std::string const& name, std::string const& channel) const {
        return package(name) + "/" + channel;
    }
    std::string versions_index(std::string const& name, std::string const& channel_name) const {
        return channel(name, channel_name) + "/versions.json";
    }
    std::string version(BuildId const& id) const {
        return channel(id.name, id.channel) + "/" + id.version;
    }
    std::string build(BuildId const& id) const { return version(id) + "/" + id.arch; }

    static constexpr char const* K_ARTIFACT = "/artifact";
    static constexpr char const* K_MANIFEST = "/manifest.json";
    /// Marks a build whose removal has begun.
    static constexpr char const* K_TOMBSTONE = "/.removed";

private:
    std::string root_;
};

} // namespace mirelpack
