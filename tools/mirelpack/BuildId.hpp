#pragma once

#include <string>
#include <string_view>

namespace mirelpack {

/// What one build is published under: the four names between "/api/packages/" and "/artifact".
struct BuildId {
    std::string name;
    std::string channel;
    std::string version;
    std::string arch;

    /// "name channel version arch", for messages.
    std::string text() const;
};

/// True for a name that can stand in a URL and in a folder as it is: letters, digits and
/// ". _ + ~ -", a letter or digit first, at most `K_MAX_NAME_SIZE` bytes.
bool is_registry_name(std::string_view name);

inline constexpr std::size_t K_MAX_NAME_SIZE = 128;

/// Throws `PackError` unless all four are registry names that collide neither with the route
/// ".../channels" nor with the index files beside the folders.
void check_build_id(BuildId const& id);

} // namespace mirelpack
