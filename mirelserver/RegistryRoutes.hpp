#pragma once

#include "mirelserver/RegistryFolder.hpp"
#include "mirelserver/Reply.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirelserver {

/// Where a URL path leads in the registry folder.
struct RegistryTarget {
    std::vector<std::string> file; ///< Components of the file's path below the folder.
    bool is_artifact = false;      ///< Else an index, which is JSON.
    bool is_package_list = false;  ///< Its index may be missing: then there are no packages yet.
};

/// Nothing for a path that no registry has.
std::optional<RegistryTarget> map_registry_path(std::vector<std::string> const& components);

/// The read-only API of a registry:
///
///     /api/packages                                                    {"packages":[...]}
///     /api/packages/<name>/channels                                    {"channels":[...]}
///     /api/packages/<name>/<channel>                                   {"versions":[...]}
///     /api/packages/<name>/<channel>/<version>/<arch>/artifact         the artifact
///
/// Thread safety: immutable after construction; it opens files, so a call may wait for the disk.
/// Errors: in the reply: 400 for a path that cannot be decoded, 404, 405, 416.
class RegistryRoutes {
public:
    explicit RegistryRoutes(RegistryFolder folder) : folder_(std::move(folder)) {}

    Reply answer(Request const& request) const;

private:
    RegistryFolder folder_;
};

} // namespace mirelserver
