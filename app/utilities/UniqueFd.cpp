#include "app/utilities/UniqueFd.hpp"

#include <cerrno>
#include <unistd.h>

namespace tessaron {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
}

UniqueFd::~UniqueFd() {
    reset();
}

void UniqueFd::reset(int fd) noexcept {
    int const old = std::exchange(fd_, fd);
    if (old >= 0) {
        int const saved_errno = errno;
        close(old);
        errno = saved_errno;
    }
}

} // namespace tessaron
