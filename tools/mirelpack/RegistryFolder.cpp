#include "tools/mirelpack/RegistryFolder.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/json_value.hpp"
#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/RegistryLock.hpp"
#include "tools/mirelpack/artifact_inspector.hpp"
#include "tools/mirelpack/durable_files.hpp"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace mirelpack {

namespace fs_tools = tessaron::fs_tools;
using tessaron::json::Value;

namespace {

void write_durably(std::string const& path, std::string const& text) {
    if (!tessaron::replace_file_durably(path, text)) {
        throw system_error("cannot write " + path);
    }
}

/// Leaves no copy behind when a publish fails; a killed one is swept by the next holder.
class Sweeper {
public:
    explicit Sweeper(std::string path) : path_(std::move(path)) {}
    Sweeper(Sweeper const&) = delete;
    Sweeper& operator=(Sweeper const&) = delete;
    ~Sweeper() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

private:
    std::string path_;
};

std::string without_trailing_slash(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

} // namespace

RegistryFolder::RegistryFolder(std::string root)
    : paths_(without_trailing_slash(std::move(root))), index_(paths_) {
}

PublishResult RegistryFolder::publish(BuildId const& id, std::string const& artifact,
                                      bool replace) {
    check_build_id(id);
    make_directories(paths_.root());
    RegistryLock const lock(paths_.lock());
    recover();

    Sweeper const sweeper(paths_.stage());
    make_directories(paths_.stage());
    std::string const staged = paths_.stage() + RegistryPaths::K_ARTIFACT;
    copy_file(artifact, staged);
    ArtifactFacts const facts = inspect_artifact(staged, artifact);
    write_durably(paths_.stage() + RegistryPaths::K_MANIFEST, facts.manifest.dump());

    PublishResult result{false, facts.warnings};
    if (!is_whole(id)) {
        place_new(id);
    } else if (same_contents(staged, paths_.build(id) + RegistryPaths::K_ARTIFACT)) {
        result.already_there = true;
    } else if (replace) {
        place_over(id);
    } else {
        throw PackError(id.text() + " is published already, with other contents (--replace "
                                    "publishes these instead)");
    }
    end_change(id);
    return result;
}

void RegistryFolder::remove(BuildId const& id) {
    check_build_id(id);
    require_folder();
    RegistryLock const lock(paths_.lock());
    recover();
    if (!fs_tools::is_dir(paths_.build(id))) {
        throw PackError(id.text() + " is not in the registry " + paths_.root());
    }
    make_directories(paths_.incoming());
    write_journal(id);
    write_durably(paths_.build(id) + RegistryPaths::K_TOMBSTONE, "");
    finish_removal(id);
    end_change(id);
}

std::vector<BuildId> RegistryFolder::list(std::string const& only_name) const {
    require_folder();
    return index_.list(only_name);
}

void RegistryFolder::require_folder() const {
    if (!std::filesystem::is_directory(paths_.root())) {
        throw PackError("there is no registry folder " + paths_.root());
    }
}

bool RegistryFolder::is_whole(BuildId const& id) const {
    return fs_tools::is_reg(paths_.build(id) + RegistryPaths::K_ARTIFACT) &&
           fs_tools::is_reg(paths_.build(id) + RegistryPaths::K_MANIFEST);
}

void RegistryFolder::place_new(BuildId const& id) {
    make_directories(paths_.version(id));
    if (fs_tools::path_exists(paths_.build(id))) { // put there by hand, and incomplete
        remove_tree(paths_.trash());
        rename_durably(paths_.build(id), paths_.trash());
    }
    write_journal(id);
    rename_durably(paths_.stage(), paths_.build(id));
}

void RegistryFolder::place_over(BuildId const& id) {
    write_journal(id);
    for (char const* file : {RegistryPaths::K_ARTIFACT, RegistryPaths::K_MANIFEST}) {
        rename_durably(paths_.stage() + file, paths_.build(id) + file);
    }
}

void RegistryFolder::write_journal(BuildId const& id) {
    write_durably(paths_.journal(), Value(Value::Object{{"name", id.name},
                                                        {"channel", id.channel},
                                                        {"version", id.version},
                                                        {"arch", id.arch}})
                                        .dump());
}

void RegistryFolder::end_change(BuildId const& id) {
    index_.rebuild(id.name, id.channel);
    remove_tree(paths_.incoming());
}

void RegistryFolder::finish_removal(BuildId const& id) {
    index_.rebuild(id.name, id.channel);
    remove_tree(paths_.trash());
    rename_durably(paths_.build(id), paths_.trash());
    rmdir(paths_.version(id).c_str()); // stays if it has other arches
}

void RegistryFolder::refresh_manifest(BuildId const& id) {
    std::string const build = paths_.build(id);
    try {
        std::string const text =
            inspect_artifact(build + RegistryPaths::K_ARTIFACT, id.text()).manifest.dump();
        if (tessaron::read_file(build + RegistryPaths::K_MANIFEST) != text) {
            write_durably(build + RegistryPaths::K_MANIFEST, text);
        }
    } catch (PackError const& error) {
        // Others must still be able to publish.
        std::fprintf(stderr, "mirelpack: warning: %s\n", error.what());
    }
}

std::optional<BuildId> RegistryFolder::read_journal() const {
    auto const text = tessaron::read_file(paths_.journal());
    if (!text) {
        return std::nullopt;
    }
    try {
        Value const entry = Value::parse(*text);
        BuildId id{entry.at("name").as_string(""), entry.at("channel").as_string(""),
                   entry.at("version").as_string(""), entry.at("arch").as_string("")};
        check_build_id(id);
        return id;
    } catch (std::exception const& error) {
        // Written by other hands; it says nothing that could be finished.
        std::fprintf(stderr, "mirelpack: warning: %s: %s\n", paths_.journal().c_str(),
                     error.what());
        return std::nullopt;
    }
}

void RegistryFolder::recover() {
    if (auto const id = read_journal()) {
        if (fs_tools::path_exists(paths_.build(*id) + RegistryPaths::K_TOMBSTONE)) {
            finish_removal(*id);
        } else if (is_whole(*id)) {
            refresh_manifest(*id);
        }
        rmdir(paths_.version(*id).c_str()); // of a removal that came further than its mark
        index_.rebuild(id->name, id->channel);
    }
    remove_tree(paths_.incoming());
}

} // namespace mirelpack
