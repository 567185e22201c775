#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tessaron::test {

/// A small HTTP server on the loopback interface, on a port of the system's choice. It answers
/// known paths with 200 and all others with 404, one connection at a time.
///
/// Ownership: its thread, which the destructor ends.
/// Thread safety: safe from any thread; one internal lock.
class TestHttpServer {
public:
    struct Answer {
        std::string body;
        /// Sent as the body's length if positive; more than the body makes a broken transfer.
        std::size_t announced_length = 0;
        /// Sends nothing after the head and keeps the connection until the client gives up.
        bool hangs = false;
    };

    TestHttpServer() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        wake_ = eventfd(0, EFD_CLOEXEC);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_, generic, length) != 0 || listen(listener_, 16) != 0 ||
            getsockname(listener_, generic, &length) != 0) {
            throw std::runtime_error("no loopback server");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~TestHttpServer() {
        eventfd_write(wake_, 1);
        thread_.join();
        close(listener_);
        close(wake_);
    }
    TestHttpServer(TestHttpServer const&) = delete;
    TestHttpServer& operator=(TestHttpServer const&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void answer(std::string const& path, Answer answer) {
        std::lock_guard lock(mutex_);
        answers_[path] = std::move(answer);
    }
    /// The paths asked for so far.
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    /// What came with those requests that had a body, whole.
    std::vector<std::string> bodies() const {
        std::lock_guard lock(mutex_);
        return bodies_;
    }

private:
    void serve() {
        while (wait_readable(listener_)) {
            int const connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                serve_connection(connection);
                close(connection);
            }
        }
    }

    /// False when the server is to end.
    bool wait_readable(int fd) const {
        pollfd polled[2] = {{fd, POLLIN, 0}, {wake_, POLLIN, 0}};
        while (poll(polled, 2, -1) < 0) {
        }
        return polled[1].revents == 0;
    }

    void serve_connection(int connection) {
        std::string head;
        while (head.find("\r\n\r\n") == std::string::npos) {
            if (!receive(connection, head)) {
                return;
            }
        }
        std::size_t const path_begin = head.find(' ') + 1;
        std::string const path = head.substr(path_begin, head.find(' ', path_begin) - path_begin);
        if (!receive_body(connection, head)) {
            return;
        }
        auto const [status, found] = look_up(path);
        std::size_t const length =
            found.announced_length > 0 ? found.announced_length : found.body.size();
        std::string const sent = "HTTP/1.1 " + status +
                                 "\r\nContent-Length: " + std::to_string(length) +
                                 "\r\nConnection: close\r\n\r\n" + found.body;
        for (std::size_t at = 0; at < sent.size();) {
            ssize_t const n = send(connection, sent.data() + at, sent.size() - at, MSG_NOSIGNAL);
            if (n <= 0) {
                return;
            }
            at += static_cast<std::size_t>(n);
        }
        if (found.hangs) {
            while (receive(connection, head)) {
            }
        }
    }

    /// What follows the head, if its length was announced.
    bool receive_body(int connection, std::string& request) {
        std::string const key = "\r\nContent-Length: ";
        std::size_t const announced = request.find(key);
        if (announced == std::string::npos) {
            return true;
        }
        std::size_t const begin = request.find("\r\n\r\n") + 4;
        std::size_t const end = begin + std::stoul(request.substr(announced + key.size()));
        while (request.size() < end) {
            if (!receive(connection, request)) {
                return false;
            }
        }
        std::lock_guard lock(mutex_);
        bodies_.push_back(request.substr(begin, end - begin));
        return true;
    }

    bool receive(int connection, std::string& to) const {
        char buffer[4096];
        ssize_t const n =
            wait_readable(connection) ? recv(connection, buffer, sizeof buffer, 0) : 0;
        if (n > 0) {
            to.append(buffer, static_cast<std::size_t>(n));
        }
        return n > 0;
    }

    std::pair<std::string, Answer> look_up(std::string const& path) {
        std::lock_guard lock(mutex_);
        requests_.push_back(path);
        auto const found = answers_.find(path);
        if (found == answers_.end()) {
            return {"404 Not Found", {"an error page"}};
        }
        return {"200 OK", found->second};
    }

    int listener_ = -1;
    int wake_ = -1;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, Answer> answers_;
    std::vector<std::string> requests_;
    std::vector<std::string> bodies_;
    std::thread thread_;
};

} // namespace tessaron::test
