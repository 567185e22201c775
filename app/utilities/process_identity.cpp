#include "app/utilities/process_identity.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace tessaron::detail {
namespace {

std::string read_executable_link() {
    std::array<char, PATH_MAX + 1> buffer;
    ssize_t const length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    // A full buffer may hold a truncated path: no path is better than a wrong one.
    if (length <= 0 || static_cast<std::size_t>(length) == buffer.size()) {
        return {};
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

} // namespace

std::string const& get_executable_path() {
    static std::string const s_path = read_executable_link();
    return s_path;
}

std::string get_username() {
    constexpr std::size_t K_LARGEST_ENTRY = 1 << 20;
    std::vector<char> buffer(1024);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        int const error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < K_LARGEST_ENTRY) {
            buffer.resize(buffer.size() * 2);
        } else if (error != EINTR) {
            return found != nullptr ? std::string(found->pw_name) : std::string();
        }
    }
}

} // namespace tessaron::detail
