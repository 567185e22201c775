#include "bench/tunnel/Backend.hpp"

#include "bench/support/loopback.hpp"

#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

std::string read_head(int fd) {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos) {
        char byte = 0;
        receive_all(fd, &byte, 1);
        head += byte;
    }
    return head;
}

void send_transfer(int fd, std::size_t size) {
    std::string const chunk(K_CHUNK, 'd');
    for (std::size_t sent = 0; sent < size; sent += chunk.size()) {
        send_all(fd, std::string_view(chunk).substr(0, size - sent));
    }
}

void take_transfer(int fd, std::size_t size) {
    std::vector<char> buffer(K_CHUNK);
    for (std::size_t taken = 0; taken < size;) {
        ssize_t const got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            fail("recv");
        }
        taken += static_cast<std::size_t>(got);
    }
    send_all(fd, "!");
}

void echo(int fd) {
    std::vector<char> buffer(K_PING);
    while (recv(fd, buffer.data(), K_PING, MSG_WAITALL) == static_cast<ssize_t>(K_PING)) {
        send_all(fd, {buffer.data(), K_PING});
    }
}

void serve(int fd) {
    std::string const head = read_head(fd);
    send_all(fd, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                 "Connection: Upgrade\r\n\r\n");
    std::string_view const path = std::string_view(head).substr(0, head.find(" HTTP/"));
    std::size_t const at = path.rfind('/') + 1;
    char const wanted = path[at];
    std::size_t const size = std::strtoull(head.c_str() + at + 1, nullptr, 10);
    if (wanted == K_DOWNLOAD) {
        send_transfer(fd, size);
    } else if (wanted == K_UPLOAD) {
        take_transfer(fd, size);
    } else {
        echo(fd);
    }
    close(fd);
}

} // namespace

void start_backend(std::uint16_t port) {
    std::thread([listener = listen_on(port)] {
        for (;;) {
            std::thread(serve, accept_on(listener)).detach();
        }
    }).detach();
}

} // namespace bench
