#pragma once

#include "app/utilities/json_value.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace mirelpack {

/// What is known of an artifact after every byte of it was read and checked.
struct ArtifactFacts {
    tessaron::json::Value manifest;
    std::string executable;
    std::string description;
    std::string sha256; ///< Of the payload; the manifest says the same.
    std::uint64_t payload_size = 0;
    std::uint64_t file_count = 0; ///< Members of the payload that are not folders.
    bool has_install_script = false;
    bool has_uninstall_script = false;
    std::vector<std::string> warnings;
};

/// Reads an artifact once, from start to end, and accepts it only if the installer and the program
/// start that follows would: sound gzip, exactly the two members, a manifest that is a JSON object
/// and names the payload's digest, a payload that unpacks below its folder without touching the
/// manifest, and an executable that is a file in it.
///
/// Throws `PackError` whose text begins with `called`, the name that the user knows the file by.
/// Memory use grows with the number of names only.
ArtifactFacts inspect_artifact(std::string const& path, std::string const& called);

} // namespace mirelpack
