#include "bench/support/loopback.hpp"

#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace bench {

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int without_delay(int fd) {
    int const on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

} // namespace

void fail(char const* what) {
    std::perror(what);
    std::exit(1);
}

int dial(std::uint16_t port) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in const address = loopback(port);
    if (connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        fail("connect");
    }
    return without_delay(fd);
}

int listen_on(std::uint16_t port) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in const address = loopback(port);
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        listen(fd, SOMAXCONN) != 0) {
        fail("listen");
    }
    return fd;
}

std::uint16_t port_of(int listener) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

int accept_on(int listener) {
    int const fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        fail("accept");
    }
    return without_delay(fd);
}

void send_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            fail("send");
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

void receive_all(int fd, char* buffer, std::size_t size) {
    while (size > 0) {
        ssize_t const got = recv(fd, buffer, size, 0);
        if (got <= 0) {
            fail("recv");
        }
        buffer += got;
        size -= static_cast<std::size_t>(got);
    }
}

} // namespace bench
