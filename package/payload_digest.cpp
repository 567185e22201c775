#include "package/payload_digest.hpp"

#include "app/utilities/shell_command.hpp"
#include "package/package_commands.hpp"

namespace tessaron {

std::optional<std::string> sha256_of_file(std::string const& path, std::stop_token const& stop) {
    auto const output = capture_shell(package_commands::digest(path), stop);
    if (!output) {
        return std::nullopt;
    }
    std::string digest = output->text;
    while (!digest.empty() && (digest.back() == '\n' || digest.back() == '\r')) {
        digest.pop_back();
    }
    // Both tools put a backslash before the digest when they had to escape the file's name.
    if (digest.starts_with('\\')) {
        digest.erase(0, 1);
    }
    if (digest.empty()) {
        return std::nullopt;
    }
    return digest;
}

} // namespace tessaron
