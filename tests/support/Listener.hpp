#pragma once

#include "app/utilities/file_io.hpp"
#include "tests/support/Peer.hpp"

#include <arpa/inet.h>
#include <cstdint>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <utility>

namespace mirelclient::test {

/// A listener on a loopback port of the system's choice.
class Listener {
public:
    /// A receive buffer of that size makes a small window for those that connect.
    explicit Listener(int receive_buffer = 0, int backlog = 16, std::uint16_t port = 0)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receive_buffer > 0) {
            setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        }
        timeval const limit{20, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        int const on = 1;
        setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(fd_.get(), generic, size), 0);
        EXPECT_EQ(listen(fd_.get(), backlog), 0);
        EXPECT_EQ(getsockname(fd_.get(), generic, &size), 0);
        port_ = ntohs(address.sin_port);
    }

    std::uint16_t port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    template <typename P = Peer>
    P accept() {
        tessaron::UniqueFd fd(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(fd.is_open()) << "nobody connects";
        return P(std::move(fd));
    }

private:
    tessaron::UniqueFd fd_;
    std::uint16_t port_ = 0;
};

} // namespace mirelclient::test
