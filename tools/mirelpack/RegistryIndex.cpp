#include "tools/mirelpack/RegistryIndex.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/version_order.hpp"

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <unistd.h>

namespace mirelpack {

namespace fs_tools = tessaron::fs_tools;
using tessaron::json::Value;

namespace {

std::vector<std::string> sorted_folders(std::string const& path) {
    auto names = fs_tools::list_dirs(path);
    std::erase_if(names, [](std::string const& name) { return !is_registry_name(name); });
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<Value> read_json(std::string const& path) {
    auto const text = tessaron::read_file(path);
    if (!text) {
        return std::nullopt;
    }
    try {
        return Value::parse(*text);
    } catch (std::exception const&) {
        return std::nullopt;
    }
}

void write_index(std::string const& path, char const* key, Value::Array items) {
    std::string const text = Value(Value::Object{{key, Value(std::move(items))}}).dump();
    // Most publishes change only the lowest index; leaving the others alone saves their syncs.
    if (tessaron::read_file(path) == text) {
        return;
    }
    if (!tessaron::replace_file_durably(path, text)) {
        throw system_error("cannot write " + path);
    }
}

/// Writes the list of those subfolders that have something to list; true if there are any.
bool write_names(std::string const& index, char const* key, std::string const& folder,
                 std::function<bool(std::string const&)> const& is_listed) {
    Value::Array names;
    for (auto const& name : sorted_folders(folder)) {
        if (is_listed(name)) {
            names.emplace_back(name);
        }
    }
    bool const any = !names.empty();
    if (any || fs_tools::is_reg(index)) {
        write_index(index, key, std::move(names));
    }
    return any;
}

/// Removes an index that lists nothing, and its folder if that was all it held.
void prune(std::string const& index, std::string const& folder) {
    unlink(index.c_str());
    rmdir(folder.c_str());
}

} // namespace

Value::Array RegistryIndex::scan_channel(std::string const& name,
                                         std::string const& channel) const {
    std::string const folder = paths_.channel(name, channel);
    auto versions = sorted_folders(folder);
    std::sort(versions.begin(), versions.end(),
              [](auto const& a, auto const& b) { return compare_versions(a, b) > 0; });
    Value::Array builds;
    for (auto const& version : versions) {
        for (auto const& arch : sorted_folders(folder + "/" + version)) {
            std::string const build = paths_.build({name, channel, version, arch});
            if (fs_tools::path_exists(build + RegistryPaths::K_TOMBSTONE) ||
                !fs_tools::is_reg(build + RegistryPaths::K_ARTIFACT)) {
                continue;
            }
            auto const manifest = read_json(build + RegistryPaths::K_MANIFEST);
            if (manifest && !manifest->as_object().empty()) {
                builds.push_back(
                    Value::Object{{"arch", arch}, {"manifest", *manifest}, {"version", version}});
            }
        }
    }
    return builds;
}

void RegistryIndex::rebuild(std::string const& name, std::string const& channel) const {
    auto builds = scan_channel(name, channel);
    bool const channel_listed = !builds.empty();
    std::string const versions_index = paths_.versions_index(name, channel);
    if (channel_listed || fs_tools::is_reg(versions_index)) {
        write_index(versions_index, "versions", std::move(builds));
    }
    bool const package_listed =
        write_names(paths_.channels_index(name), "channels", paths_.package(name),
                    [&](std::string const& other) {
                        return other == channel
                                   ? channel_listed
                                   : fs_tools::is_reg(paths_.versions_index(name, other));
                    });
    write_names(
        paths_.packages_index(), "packages", paths_.packages(), [&](std::string const& other) {
            return other == name ? package_listed : fs_tools::is_reg(paths_.channels_index(other));
        });
    if (!channel_listed) {
        prune(versions_index, paths_.channel(name, channel));
    }
    if (!package_listed) {
        prune(paths_.channels_index(name), paths_.package(name));
    }
}

std::vector<std::string> RegistryIndex::read_names(std::string const& path, char const* key) const {
    Value const list = read_json(path).value_or(Value()).at(key);
    std::vector<std::string> names;
    for (auto const& item : list.as_array()) {
        names.push_back(item.as_string(""));
    }
    return names;
}

std::vector<BuildId> RegistryIndex::list(std::string const& only_name) const {
    std::vector<BuildId> found;
    for (auto const& name : read_names(paths_.packages_index(), "packages")) {
        if (!only_name.empty() && name != only_name) {
            continue;
        }
        for (auto const& channel : read_names(paths_.channels_index(name), "channels")) {
            Value const index =
                read_json(paths_.versions_index(name, channel)).value_or(Value()).at("versions");
            for (auto const& build : index.as_array()) {
                found.push_back({name, channel, build.at("version").as_string(""),
                                 build.at("arch").as_string("")});
            }
        }
    }
    return found;
}

} // namespace mirelpack
