#include "tools/mirelpack/BuildId.hpp"

#include "tools/mirelpack/PackError.hpp"

#include <algorithm>

namespace mirelpack {

namespace {

constexpr std::string_view K_CHANNELS_ROUTE = "channels";

// Not std::isalnum: what it says depends on the locale.
bool is_letter_or_digit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool is_name_character(char c) {
    return is_letter_or_digit(c) || std::string_view("._+~-").find(c) != std::string_view::npos;
}

void check_name(char const* what, std::string const& name) {
    if (!is_registry_name(name)) {
        throw PackError(std::string("\"") + name + "\" cannot be a " + what + ": 1 to " +
                        std::to_string(K_MAX_NAME_SIZE) +
                        " letters, digits and . _ + ~ - are allowed, a letter or digit first");
    }
}

void check_beside_index(char const* what, std::string const& name) {
    if (name.ends_with(".json") || name.ends_with(".json.tmp")) {
        throw PackError(std::string("\"") + name + "\" cannot be a " + what +
                        ": such names belong to the registry's index files");
    }
}

} // namespace

std::string BuildId::text() const {
    return name + " " + channel + " " + version + " " + arch;
}

bool is_registry_name(std::string_view name) {
    return !name.empty() && name.size() <= K_MAX_NAME_SIZE && is_letter_or_digit(name.front()) &&
           std::all_of(name.begin(), name.end(), is_name_character);
}

void check_build_id(BuildId const& id) {
    check_name("package name", id.name);
    check_name("channel", id.channel);
    check_name("version", id.version);
    check_name("arch", id.arch);
    if (id.channel == K_CHANNELS_ROUTE) {
        throw PackError("\"channels\" cannot be a channel: the list of channels is served there");
    }
    check_beside_index("channel", id.channel);
    check_beside_index("version", id.version);
}

} // namespace mirelpack
