// http_load PORT CLIENTS MILLISECONDS IDLE: so many clients, each of which opens a connection,
// sends one request, reads the answer up to its end and begins again; and so many connections
// that are held open without a word. Prints requests per second, median and 99th percentile.
// The clients join one by one, as answers come in, before the measurement begins: a first burst
// would measure how long a lost handshake takes, not the server.

#include "bench/http/served.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view K_REQUEST =
    "GET /api/status HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: application/json\r\n\r\n";

struct Client {
    int fd = -1;
    bool sent = false;
    Clock::time_point begun;
    std::string answer;
};

class Load {
public:
    Load(std::uint16_t port, std::size_t clients) : clients_(clients), epoll_(epoll_create1(0)) {
        address_.sin_family = AF_INET;
        address_.sin_port = htons(port);
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    void hold_silent_connections(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            int const fd = socket(AF_INET, SOCK_STREAM, 0);
            if (connect(fd, reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) != 0) {
                throw std::runtime_error("a silent connection was refused");
            }
            if (i % 16 == 15) { // one that overflows the server's queue waits for a second
                usleep(2000);
            }
        }
    }

    void run(std::chrono::milliseconds duration) {
        for (std::size_t joined = 0; joined < clients_.size();) {
            begin_request(clients_[joined++]);
            for (std::size_t const before = answers_; answers_ == before;) {
                turn();
            }
        }
        latencies_.clear();
        std::size_t const before = answers_;
        auto const begin = Clock::now();
        while (Clock::now() < begin + duration) {
            turn();
        }
        elapsed_ = Clock::now() - begin;
        measured_ = answers_ - before;
        // One that waits for a lost handshake would otherwise be missing from the percentiles.
        for (Client const& client : clients_) {
            auto const waited = Clock::now() - client.begun;
            if (waited > std::chrono::milliseconds(100)) {
                latencies_.push_back(waited);
            }
        }
    }

    void report() {
        std::sort(latencies_.begin(), latencies_.end());
        std::cout << "{\"requests_per_second\": "
                  << static_cast<double>(measured_) /
                         std::chrono::duration<double>(elapsed_).count()
                  << ", \"median_us\": " << percentile_us(50)
                  << ", \"p99_us\": " << percentile_us(99) << ", \"failures\": " << failures_
                  << "}\n";
    }

private:
    void turn() {
        std::array<epoll_event, 256> events;
        int const count = epoll_wait(epoll_, events.data(), events.size(), 100);
        for (int i = 0; i < count; ++i) {
            advance(*static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr));
        }
    }

    void begin_request(Client& client) {
        client.begun = Clock::now();
        client.sent = false;
        client.answer.clear();
        client.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        int const result =
            connect(client.fd, reinterpret_cast<sockaddr*>(&address_), sizeof(address_));
        if (result != 0 && errno != EINPROGRESS) {
            throw std::runtime_error("connect failed");
        }
        epoll_event event{};
        event.data.ptr = &client;
        event.events = EPOLLIN;
        if (result == 0) {
            send_request(client);
        } else {
            event.events |= EPOLLOUT;
        }
        epoll_ctl(epoll_, EPOLL_CTL_ADD, client.fd, &event);
    }

    void send_request(Client& client) {
        client.sent = send(client.fd, K_REQUEST.data(), K_REQUEST.size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(K_REQUEST.size());
    }

    void advance(Client& client) {
        if (!client.sent) {
            send_request(client);
            epoll_event event{};
            event.data.ptr = &client;
            event.events = EPOLLIN;
            epoll_ctl(epoll_, EPOLL_CTL_MOD, client.fd, &event);
            return;
        }
        std::array<char, 4096> buffer;
        for (;;) {
            ssize_t const got = recv(client.fd, buffer.data(), buffer.size(), 0);
            if (got < 0 && errno == EAGAIN) {
                return;
            }
            if (got <= 0) {
                break;
            }
            client.answer.append(buffer.data(), static_cast<std::size_t>(got));
        }
        close(client.fd);
        bool const good =
            client.answer.starts_with("HTTP/1.1 200 ") && client.answer.ends_with(bench::K_JSON);
        ++(good ? answers_ : failures_);
        latencies_.push_back(Clock::now() - client.begun);
        begin_request(client);
    }

    double percentile_us(std::size_t percent) const {
        if (latencies_.empty()) {
            return 0;
        }
        std::size_t const index =
            std::min(latencies_.size() - 1, latencies_.size() * percent / 100);
        return std::chrono::duration<double, std::micro>(latencies_[index]).count();
    }

    std::vector<Client> clients_;
    int epoll_;
    sockaddr_in address_{};
    std::vector<Clock::duration> latencies_;
    Clock::duration elapsed_{};
    std::size_t answers_ = 0;
    std::size_t measured_ = 0;
    std::size_t failures_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: http_load PORT CLIENTS MILLISECONDS IDLE\n";
        return 2;
    }
    try {
        Load load(static_cast<std::uint16_t>(std::stoul(argv[1])), std::stoul(argv[2]));
        load.hold_silent_connections(std::stoul(argv[4]));
        load.run(std::chrono::milliseconds(std::stoul(argv[3])));
        load.report();
    } catch (std::exception const& failure) {
        std::cerr << "http_load: " << failure.what() << '\n';
        return 1;
    }
}
