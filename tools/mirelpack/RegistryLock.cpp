#include "tools/mirelpack/RegistryLock.hpp"

#include "tools/mirelpack/PackError.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace mirelpack {

RegistryLock::RegistryLock(std::string const& path)
    : file_(tessaron::open_file(path, O_RDWR | O_CREAT)) {
    if (!file_.is_open()) {
        throw system_error("cannot open " + path);
    }
    if (flock(file_.get(), LOCK_EX | LOCK_NB) == 0) {
        return;
    }
    if (isatty(STDERR_FILENO) == 1) {
        std::fputs("mirelpack: waiting for another mirelpack to finish with this registry\n",
                   stderr);
    }
    while (flock(file_.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            throw system_error("cannot lock " + path);
        }
    }
}

} // namespace mirelpack
