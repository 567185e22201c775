#include "libraries/interfaces/socket/Socket.hpp"

#include <unistd.h>
#include <utility>

namespace proto::interface {

Socket Socket::make(int type) noexcept {
    return Socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
}

Socket::Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {
}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

Socket::~Socket() {
    close();
}

void Socket::close() noexcept {
    if (is_open()) {
        ::close(std::exchange(descriptor_, -1));
    }
}

} // namespace proto::interface
