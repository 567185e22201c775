#include "app/utilities/file_io.hpp"

#include "app/utilities/fs_tools.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tessaron {
namespace {

/// Closes and tells whether the file system reported a late write error.
bool close_checked(UniqueFd& fd) {
    // Linux has released the descriptor even if a signal interrupts the call.
    return close(fd.release()) == 0 || errno == EINTR;
}

bool sync_file(int fd) {
    int result = 0;
    do {
        result = fsync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool sync_directory(std::string const& path) {
    UniqueFd const directory = open_file(path, O_RDONLY | O_DIRECTORY);
    // EINVAL: this file system has no sync of directories.
    return directory.is_open() && (sync_file(directory.get()) || errno == EINVAL);
}

/// Gives the open file the permission bits of the file it is going to replace, if there is one.
bool copy_permissions(std::string const& from, int to) {
    struct stat old {};
    if (stat(from.c_str(), &old) != 0) {
        return errno == ENOENT;
    }
    return fchmod(to, old.st_mode & 07777) == 0;
}

} // namespace

UniqueFd open_file(std::string const& path, int flags, unsigned mode) {
    int fd = -1;
    do {
        fd = open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return UniqueFd(fd);
}

void take_charge_of_inherited_descriptors() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR); // the lowest number that is free
    } while ((fd >= 0 && fd < STDERR_FILENO) || (fd < 0 && errno == EINTR));
    if (fd > STDERR_FILENO) {
        close(fd);
    }
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
}

std::optional<std::string> read_file(std::string const& path) {
    UniqueFd const fd = open_file(path, O_RDONLY);
    if (!fd.is_open()) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 16384> chunk;
    for (;;) {
        ssize_t const count = read(fd.get(), chunk.data(), chunk.size());
        if (count > 0) {
            text.append(chunk.data(), static_cast<std::size_t>(count));
        } else if (count == 0) {
            return text;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const count = write(fd, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool write_file(std::string const& path, std::string_view bytes, int flags, unsigned mode) {
    UniqueFd fd = open_file(path, O_WRONLY | O_CREAT | flags, mode);
    return fd.is_open() && write_all(fd.get(), bytes) && close_checked(fd);
}

bool replace_file_durably(std::string const& path, std::string_view bytes,
                          std::string const& temporary_suffix) {
    std::string const temporary = path + temporary_suffix;
    UniqueFd fd = open_file(temporary, O_WRONLY | O_CREAT | O_TRUNC);
    if (!fd.is_open()) {
        return false;
    }
    bool const replaced = copy_permissions(path, fd.get()) && write_all(fd.get(), bytes) &&
                          sync_file(fd.get()) && close_checked(fd) &&
                          std::rename(temporary.c_str(), path.c_str()) == 0;
    if (!replaced) {
        unlink(temporary.c_str());
        return false;
    }
    return sync_directory(fs_tools::dir_name(path));
}

} // namespace tessaron
