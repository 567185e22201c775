#include "app/utilities/fs_tools.hpp"

#include <array>
#include <cerrno>
#include <dirent.h>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace tessaron::fs_tools {
namespace {

std::optional<mode_t> mode_of_entry(std::string const& path) {
    struct stat entry {};
    if (lstat(path.c_str(), &entry) != 0) {
        return std::nullopt;
    }
    return entry.st_mode;
}

std::string current_directory() {
    std::array<char, 1024> buffer;
    return getcwd(buffer.data(), buffer.size()) != nullptr ? buffer.data() : ".";
}

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

} // namespace

bool path_exists(std::string const& path) {
    return mode_of_entry(path).has_value();
}

bool is_dir(std::string const& path) {
    auto const mode = mode_of_entry(path);
    return mode && S_ISDIR(*mode);
}

bool is_reg(std::string const& path) {
    auto const mode = mode_of_entry(path);
    return mode && S_ISREG(*mode);
}

std::uintmax_t file_size(std::string const& path, std::error_code& error) {
    struct stat entry {};
    if (stat(path.c_str(), &entry) != 0) {
        error.assign(errno, std::generic_category());
        return 0;
    }
    error.clear();
    return static_cast<std::uintmax_t>(entry.st_size);
}

bool make_dir_once(std::string const& path, mode_t mode) {
    if (is_dir(path) || mkdir(path.c_str(), mode) == 0) {
        return true;
    }
    // Another process may have won the race between the two calls.
    return errno == EEXIST && is_dir(path);
}

std::string dir_name(std::string const& path) {
    if (path.empty()) {
        return current_directory();
    }
    auto const slash = path.rfind('/');
    if (slash == 0) {
        return "/";
    }
    std::string const directory = slash == std::string::npos ? "." : path.substr(0, slash);
    return directory.front() == '/' ? directory : current_directory() + "/" + directory;
}

std::string file_name(std::string const& path) {
    auto const slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string join_path(std::string const& a, std::string const& b) {
    return a.empty() || a.back() == '/' ? a + b : a + "/" + b;
}

std::vector<std::string> list_dir_fs(std::string const& path, std::string const& prefix) {
    std::vector<std::string> names;
    // glibc opens it close-on-exec.
    std::unique_ptr<DIR, CloseDirectory> const directory(opendir(path.c_str()));
    if (directory == nullptr) {
        return names;
    }
    while (dirent const* const entry = readdir(directory.get())) {
        std::string_view const name = entry->d_name;
        if (name != "." && name != ".." && name.starts_with(prefix)) {
            names.emplace_back(name);
        }
    }
    return names;
}

std::vector<std::string> list_dirs(std::string const& path) {
    auto names = list_dir_fs(path);
    std::erase_if(names, [&](std::string const& name) { return !is_dir(join_path(path, name)); });
    return names;
}

} // namespace tessaron::fs_tools
