#pragma once

#include "app/utilities/file_io.hpp"
#include "libraries/vocabulary/IInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>

namespace tessaron::test {

/// The client's end of a TCP connection as a transport: what a tool joins a bus gateway with.
///
/// Ownership: the connection and the thread that reads it; outlives what uses it.
/// Thread safety: safe from any thread; receivers run on its reader.
/// Errors: writes to a connection that is gone do nothing.
class TcpPort final : public proto::interface::IInterface {
public:
    explicit TcpPort(std::uint16_t port) : IInterface("tool") {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int const on = 1;
        ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connected_ =
            ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        reader_ = std::thread([this] { read_to_the_end(); });
    }
    ~TcpPort() override {
        TcpPort::close();
        reader_.join();
    }

    bool write(CustomSpan<unsigned char> bytes, std::chrono::milliseconds) override {
        MutexLock lock(write_mutex_);
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            ssize_t const count =
                ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }
    bool is_open() override { return connected_; }
    bool open() override { return connected_; }
    bool close() override { return ::shutdown(socket_.get(), SHUT_RDWR) == 0; }
    long read(unsigned char*, unsigned long) override { return -1; }

private:
    void read_to_the_end() {
        std::array<unsigned char, 4096> buffer;
        for (;;) {
            ssize_t const count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
            if (count <= 0) {
                return;
            }
            notify_receivers({buffer.data(), static_cast<std::size_t>(count)});
        }
    }

    UniqueFd const socket_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    bool connected_ = false;
    Mutex write_mutex_;
    std::thread reader_;
};

} // namespace tessaron::test
