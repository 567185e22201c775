#include "mirelserver/RegistryFolder.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace mirelserver {

using tessaron::UniqueFd;

std::optional<OpenFile> RegistryFolder::open(std::vector<std::string> const& components) const {
    if (components.empty()) {
        return std::nullopt;
    }
    UniqueFd folder = tessaron::open_file(root_, O_PATH | O_DIRECTORY);
    for (std::size_t i = 0; i + 1 < components.size() && folder.is_open(); ++i) {
        folder.reset(openat(folder.get(), components[i].c_str(),
                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    if (!folder.is_open()) {
        return std::nullopt;
    }
    // Non-blocking, so that a pipe in the place of a file cannot hold a thread.
    OpenFile file{UniqueFd(openat(folder.get(), components.back().c_str(),
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)),
                  0};
    struct stat info {};
    if (!file.fd.is_open() || fstat(file.fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return std::nullopt;
    }
    file.size = static_cast<std::uint64_t>(info.st_size);
    return file;
}

} // namespace mirelserver
