#pragma once

#include "app/utilities/file_io.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>

namespace mirelclient::test {

/// One TCP connection to a port of this machine, as a client sees it. Waits end after 20 seconds.
class LoopbackClient {
public:
    explicit LoopbackClient(std::uint16_t port, int receive_buffer = 0)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        timeval const limit{20, 0};
        ::setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (receive_buffer > 0) {
            ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }

    int fd() const { return fd_.get(); }
    bool connected() const { return connected_; }

    bool send(std::string_view text) {
        while (!text.empty()) {
            ssize_t const sent = ::send(fd(), text.data(), text.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            text.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    void end_of_input() { ::shutdown(fd(), SHUT_WR); }

    /// Everything up to the end of the connection; a reset or a time-out is a failure.
    std::string read_all() {
        std::string text;
        std::array<char, 65536> buffer;
        for (;;) {
            ssize_t const got = ::recv(fd(), buffer.data(), buffer.size(), 0);
            if (got < 0) {
                ADD_FAILURE() << "after " << text.size() << " bytes: " << std::strerror(errno);
            }
            if (got <= 0) {
                return text;
            }
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
    }

    /// Nothing has come, and the connection stands.
    bool is_silent() const {
        char byte = 0;
        return ::recv(fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }

    /// This process, as the server, has accepted the connection: it holds the other end.
    bool accepted() const {
        sockaddr_in ours{};
        socklen_t size = sizeof(ours);
        ::getsockname(fd(), reinterpret_cast<sockaddr*>(&ours), &size);
        for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            int const other = std::atoi(entry.path().filename().c_str());
            sockaddr_in theirs{};
            size = sizeof(theirs);
            if (::getpeername(other, reinterpret_cast<sockaddr*>(&theirs), &size) == 0 &&
                theirs.sin_family == AF_INET && theirs.sin_port == ours.sin_port) {
                return true;
            }
        }
        return false;
    }

    /// Leaves with a reset, as a peer that is killed with input unread.
    void abort() {
        linger const at_once{1, 0};
        ::setsockopt(fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        fd_.reset();
    }

private:
    tessaron::UniqueFd fd_;
    bool connected_ = false;
};

/// The whole answer to one request on a connection of its own.
inline std::string answer_to(std::uint16_t port, std::string_view request) {
    LoopbackClient client(port);
    EXPECT_TRUE(client.send(request));
    return client.read_all();
}

inline std::string answer_text(std::string const& status, std::string const& type,
                               std::string const& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           body;
}

inline std::string json_answer(std::string const& status, std::string const& body) {
    return answer_text(status, "application/json", body);
}

inline std::string get(std::string const& target) {
    return "GET " + target + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

/// The connection threads of all servers in this process; a sanitizer has threads of its own.
inline std::size_t thread_count() {
    std::size_t count = 0;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        count += tessaron::read_file(task.path() / "comm") == "web-connection\n" ? 1U : 0U;
    }
    return count;
}

inline std::size_t descriptor_count() {
    auto const all = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace mirelclient::test
