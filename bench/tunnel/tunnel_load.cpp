// A backend and its user in one, with several ways from one to the other, which take turns:
//
//     tunnel_load ROUNDS BACKEND_PORT TUNNEL_PORT SSH_PORT PROXY_PORT
//
// Says "listening" when the tunnel can be dialled, waits for a line, and prints one line of JSON
// for each way: medians in bytes per second and microseconds.
#include "bench/support/loopback.hpp"
#include "bench/support/statistics.hpp"
#include "bench/tunnel/Backend.hpp"
#include "bench/tunnel/paths.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using bench::IPath;
using Clock = std::chrono::steady_clock;

constexpr int K_PINGS = 3000;
constexpr std::size_t K_TRANSFER = std::size_t{200} * 1000 * 1000;
/// By mirelserver, which ends a stream that gets more than 64 MiB ahead of its reader.
constexpr std::size_t K_SHORT_TRANSFER = std::size_t{60} * 1000 * 1000;

struct Way {
    char const* name;
    std::string prefix; ///< Of the request's path.
    std::size_t transfer;
    std::function<std::unique_ptr<IPath>()> open;
    std::vector<double> downloads, uploads, pings;
};

void ask(IPath& path, Way const& way, char wanted) {
    path.write("GET " + way.prefix + "/" + wanted + std::to_string(way.transfer) +
               " HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
               "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
}

/// Returns what came after the answer's head already.
std::size_t read_head(IPath& path) {
    std::string head;
    std::size_t end = std::string::npos;
    while (end == std::string::npos) {
        head += path.read();
        end = head.find("\r\n\r\n");
    }
    if (head.compare(0, 12, "HTTP/1.1 101") != 0) {
        std::fprintf(stderr, "%s\n", head.c_str());
        std::exit(1);
    }
    return head.size() - end - 4;
}

double bytes_per_second(Way const& way, Clock::time_point begin) {
    std::chrono::duration<double> const time = Clock::now() - begin;
    return static_cast<double>(way.transfer) / time.count();
}

double download(Way const& way) {
    auto const path = way.open();
    auto const begin = Clock::now();
    ask(*path, way, bench::K_DOWNLOAD);
    for (std::size_t got = read_head(*path); got < way.transfer;) {
        got += path->read().size();
    }
    return bytes_per_second(way, begin);
}

double upload(Way const& way) {
    auto const path = way.open();
    ask(*path, way, bench::K_UPLOAD);
    read_head(*path);
    std::string const chunk(bench::K_CHUNK, 'u');
    auto const begin = Clock::now();
    for (std::size_t sent = 0; sent < way.transfer; sent += chunk.size()) {
        path->write(std::string_view(chunk).substr(0, way.transfer - sent));
    }
    path->read();
    return bytes_per_second(way, begin);
}

double ping(Way const& way) {
    auto const path = way.open();
    ask(*path, way, bench::K_ECHO);
    read_head(*path);
    std::string const message(bench::K_PING, 'e');
    std::vector<double> times;
    for (int i = 0; i < K_PINGS; ++i) {
        auto const begin = Clock::now();
        path->write(message);
        for (std::size_t got = 0; got < message.size();) {
            got += path->read().size();
        }
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    return bench::median(std::move(times));
}

std::function<std::unique_ptr<IPath>()> by_tcp(std::uint16_t port) {
    return [port] { return std::make_unique<bench::TcpPath>(port); };
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        return 2;
    }
    auto const number = [argv](int i) { return static_cast<std::uint16_t>(std::atoi(argv[i])); };
    int const rounds = number(1);
    bench::start_backend(number(2));
    int const listener = bench::listen_on(number(3));
    std::puts("listening");
    std::fflush(stdout);
    bench::TunnelServer server(listener);
    std::getchar();

    std::vector<Way> ways{
        {"direct", "", K_TRANSFER, by_tcp(number(2)), {}, {}, {}},
        {"tunnel", "", K_TRANSFER, [&server] { return server.open(); }, {}, {}, {}},
        {"ssh", "", K_TRANSFER, by_tcp(number(4)), {}, {}, {}},
        {"mirelserver",
         "/api/clients/bench/proxy",
         K_SHORT_TRANSFER,
         by_tcp(number(5)),
         {},
         {},
         {}}};
    for (int round = 0; round < rounds; ++round) {
        for (Way& way : ways) {
            way.downloads.push_back(download(way));
            way.uploads.push_back(upload(way));
            way.pings.push_back(ping(way));
        }
    }
    for (Way const& way : ways) {
        std::printf("{\"way\":\"%s\",\"download\":%.0f,\"upload\":%.0f,\"ping\":%.1f}\n", way.name,
                    bench::median(way.downloads), bench::median(way.uploads),
                    bench::median(way.pings));
    }
    return 0;
}
