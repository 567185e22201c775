#include "bus/debug_marker.hpp"

#include "app/utilities/file_io.hpp"
#include "bus/identity_text.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace tessaron::bus {
namespace {

/// Locale's letters would differ from node to node.
bool stays(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' || byte == '.';
}

std::string identity_text(char const* field) {
    return identity_field_to_string(field, proto::bus::K_IDENTITY_TEXT_SIZE);
}

/// A sanitised text holds no slash, but may still lead out of its directory.
bool is_plain_name(std::string const& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

enum class Missing { STAYS_MISSING, IS_MADE };

/// The directory of that name within `parent`, a real one; nothing when there is none.
UniqueFd open_directory(int parent, std::string const& name, Missing missing) {
    if (missing == Missing::IS_MADE && mkdirat(parent, name.c_str(), 0777) != 0 &&
        errno != EEXIST) {
        return UniqueFd();
    }
    return UniqueFd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd open_root(std::string const& binary, std::filesystem::path const& base, Missing missing) {
    std::string const app = sanitize_debug_name(binary);
    if (!is_plain_name(app)) {
        return UniqueFd();
    }
    UniqueFd directory(open(base.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (std::string const& name : {base.filename().string(), app, std::string("bus")}) {
        if (!directory.is_open()) {
            break;
        }
        directory = open_directory(directory.get(), name, missing);
    }
    return directory;
}

} // namespace

std::string sanitize_debug_name(std::string_view text) {
    std::string name(text);
    for (char& byte : name) {
        if (!stays(byte)) {
            byte = '_';
        }
    }
    return name.empty() ? "unnamed" : name;
}

std::string debug_name(proto::bus::NodeIdentity const& identity) {
    return sanitize_debug_name(identity_text(identity.name));
}

std::string debug_app_name(proto::bus::NodeIdentity const& identity) {
    return sanitize_debug_name(identity_text(identity.binary));
}

std::filesystem::path bus_debug_root(std::string const& binary, std::filesystem::path const& base) {
    return base / sanitize_debug_name(binary) / "bus";
}

void touch_debug_marker(std::string const& binary, std::string const& name, std::uint32_t address,
                        std::string const& text, std::filesystem::path const& base) {
    UniqueFd const root = open_root(binary, base, Missing::IS_MADE);
    if (!root.is_open() || !is_plain_name(name)) {
        return;
    }
    // Non-blocking: a pipe that somebody put there must not hold the node up. It is cut only after
    // it has been seen to be a file.
    UniqueFd const file(openat(root.get(), name.c_str(),
                               O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        ftruncate(file.get(), 0) != 0) {
        return;
    }
    std::string contents =
        "address=" + std::to_string(address) + " pid=" + std::to_string(getpid()) + "\n" + text;
    // A disk that is full leaves a marker that says less.
    std::ignore = write_all(file.get(), contents);
}

void remove_debug_marker(std::string const& binary, std::string const& name,
                         std::filesystem::path const& base) {
    UniqueFd const root = open_root(binary, base, Missing::STAYS_MISSING);
    if (root.is_open() && is_plain_name(name)) {
        unlinkat(root.get(), name.c_str(), 0);
    }
}

} // namespace tessaron::bus
