#pragma once

#include "app/utilities/shell_quote.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tessaron::test {

inline std::string shell_word(std::string_view value) {
    return "'" + shell_quote(value) + "'";
}

/// Runs a command that must succeed for the test to make sense.
inline void must_run(std::string const& command) {
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

inline void write_text(std::filesystem::path const& path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

/// The file's contents, or an empty text if there is none.
inline std::string read_text(std::filesystem::path const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// Builds artifacts as a packager does, with the system's own tar and sha256sum.
///
///     std::string artifact = ArtifactBuilder(scratch / "a").program("run", "exec sleep
///     9").build();
///
/// Thread safety: one thread at a time, the caller's duty.
class ArtifactBuilder {
public:
    /// `directory` is where the builder works and the artifact will lie; it is made if missing.
    explicit ArtifactBuilder(std::string directory) : directory_(std::move(directory)) {
        std::filesystem::create_directories(payload_dir());
        std::filesystem::create_directories(top_dir());
    }

    /// A file of the payload, its path relative to the install path.
    ArtifactBuilder& file(std::string const& path, std::string_view contents) {
        write_text(payload_dir() + "/" + path, contents);
        return *this;
    }

    /// An executable shell script in the payload, and the manifest's `executable`.
    ArtifactBuilder& program(std::string const& path, std::string_view body) {
        file(path, "#!/bin/sh\n" + std::string(body) + "\n");
        std::filesystem::permissions(payload_dir() + "/" + path, std::filesystem::perms::owner_all);
        executable_ = path;
        return *this;
    }

    /// A copy of a program of this machine, and the manifest's `executable`.
    ArtifactBuilder& copied_program(std::string const& path, std::string const& original) {
        std::filesystem::copy_file(std::filesystem::canonical(original), payload_dir() + "/" + path,
                                   std::filesystem::copy_options::overwrite_existing);
        executable_ = path;
        return *this;
    }

    /// The manifest word for word, in place of the one with `executable` and `sha256`; "@SHA256@"
    /// in it becomes the payload's digest.
    ArtifactBuilder& manifest(std::string text) {
        manifest_ = std::move(text);
        return *this;
    }

    ArtifactBuilder& without_manifest() {
        has_manifest_ = false;
        return *this;
    }
    ArtifactBuilder& without_payload() {
        has_payload_ = false;
        return *this;
    }
    /// Puts these bytes where the payload's tar file belongs.
    ArtifactBuilder& broken_payload(std::string bytes) {
        broken_payload_ = std::move(bytes);
        return *this;
    }
    /// Runs a command in the directory of the artifact's two members, before they are packed.
    ArtifactBuilder& before_packing(std::string command) {
        before_packing_ = std::move(command);
        return *this;
    }

    /// Packs the artifact and returns its path.
    std::string build() const {
        std::string const payload = top_dir() + "/payload.tar";
        must_run("tar -cf " + shell_word(payload) + " -C " + shell_word(payload_dir()) + " .");
        if (!broken_payload_.empty()) {
            write_text(payload, broken_payload_);
        }
        if (has_manifest_) {
            write_text(top_dir() + "/manifest.json", manifest_with_digest(digest_of(payload)));
        }
        if (!has_payload_) {
            std::filesystem::remove(payload);
        }
        if (!before_packing_.empty()) {
            must_run("cd " + shell_word(top_dir()) + " && " + before_packing_);
        }
        std::string const artifact = directory_ + "/artifact.tar.gz";
        must_run("tar -czf " + shell_word(artifact) + " -C " + shell_word(top_dir()) + " .");
        return artifact;
    }

private:
    std::string payload_dir() const { return directory_ + "/payload"; }
    std::string top_dir() const { return directory_ + "/top"; }

    std::string digest_of(std::string const& path) const {
        std::string const result = directory_ + "/digest";
        must_run("sha256sum < " + shell_word(path) + " > " + shell_word(result));
        return read_text(result).substr(0, 64);
    }

    std::string manifest_with_digest(std::string const& digest) const {
        std::string text = manifest_;
        if (text.empty()) {
            text = "{\"executable\":\"" + executable_ + "\",\"sha256\":\"@SHA256@\"}";
        }
        std::string const placeholder = "@SHA256@";
        if (auto const found = text.find(placeholder); found != std::string::npos) {
            text.replace(found, placeholder.size(), digest);
        }
        return text;
    }

    std::string directory_;
    std::string executable_ = "run";
    std::string manifest_;
    std::string broken_payload_;
    std::string before_packing_;
    bool has_manifest_ = true;
    bool has_payload_ = true;
};

} // namespace tessaron::test
