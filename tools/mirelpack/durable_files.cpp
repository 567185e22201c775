#include "tools/mirelpack/durable_files.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace mirelpack {

using tessaron::open_file;
using tessaron::UniqueFd;
namespace fs_tools = tessaron::fs_tools;

namespace {

constexpr std::size_t K_COPY_SIZE = 1024 * 1024;

/// Fills the buffer unless the file ends; the number of bytes read.
std::size_t read_block(int fd, std::vector<char>& buffer, std::string const& path) {
    std::size_t used = 0;
    while (used < buffer.size()) {
        ssize_t const got = read(fd, buffer.data() + used, buffer.size() - used);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw system_error("cannot read " + path);
        }
        if (got == 0) {
            break;
        }
        used += static_cast<std::size_t>(got);
    }
    return used;
}

} // namespace

void sync_directory(std::string const& path) {
    UniqueFd const directory = open_file(path, O_RDONLY | O_DIRECTORY);
    if (!directory.is_open() || fsync(directory.get()) != 0) {
        throw system_error("cannot sync " + path);
    }
}

void make_directories(std::string const& path) {
    if (fs_tools::is_dir(path)) {
        return;
    }
    std::string const parent = fs_tools::dir_name(path);
    struct stat info {};
    if (stat(parent.c_str(), &info) != 0 && parent != path) {
        make_directories(parent);
    }
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        throw system_error("cannot make " + path);
    }
    sync_directory(parent);
}

void copy_file(std::string const& from, std::string const& to) {
    UniqueFd const source = open_file(from, O_RDONLY);
    if (!source.is_open()) {
        throw system_error("cannot open " + from);
    }
    UniqueFd const target = open_file(to, O_WRONLY | O_CREAT | O_TRUNC);
    if (!target.is_open()) {
        throw system_error("cannot write " + to);
    }
    std::vector<char> buffer(K_COPY_SIZE);
    while (std::size_t const size = read_block(source.get(), buffer, from)) {
        if (!tessaron::write_all(target.get(), std::string_view(buffer.data(), size))) {
            throw system_error("cannot write " + to);
        }
    }
    if (fsync(target.get()) != 0) {
        throw system_error("cannot write " + to);
    }
}

void rename_durably(std::string const& from, std::string const& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        throw system_error("cannot move " + from + " to " + to);
    }
    sync_directory(fs_tools::dir_name(to));
}

bool same_contents(std::string const& a, std::string const& b) {
    UniqueFd const first = open_file(a, O_RDONLY);
    UniqueFd const second = open_file(b, O_RDONLY);
    if (!first.is_open() || !second.is_open()) {
        return false;
    }
    std::vector<char> left(K_COPY_SIZE);
    std::vector<char> right(K_COPY_SIZE);
    for (;;) {
        std::size_t const size = read_block(first.get(), left, a);
        if (size != read_block(second.get(), right, b) ||
            std::memcmp(left.data(), right.data(), size) != 0) {
            return false;
        }
        if (size == 0) {
            return true;
        }
    }
}

void remove_tree(std::string const& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) {
        throw PackError("cannot remove " + path + ": " + error.message());
    }
}

} // namespace mirelpack
