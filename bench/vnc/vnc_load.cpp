// A screen server and its viewer in one, with a bridge between them. Prints the bridge's bytes per
// second: usage: vnc_load viewer|server BRIDGE_PORT SCREEN_PORT MEGABYTES
//
// "viewer": the server sends pictures as fast as they go. "server": the viewer sends messages.
#include "bench/support/WebSocketClient.hpp"
#include "bench/support/loopback.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// What a screen server writes at once.
constexpr std::size_t K_SERVER_WRITE = std::size_t{64} * 1024;
/// What a viewer's message has at most: its library gathers what it sends in a buffer of this size.
constexpr std::size_t K_VIEWER_MESSAGE = std::size_t{10} * 1024;

void send_pictures(int screen, std::size_t total) {
    std::string const piece(K_SERVER_WRITE, 'p');
    for (std::size_t sent = 0; sent < total; sent += piece.size()) {
        bench::send_all(screen, std::string_view(piece).substr(0, total - sent));
    }
}

void watch(bench::WebSocketClient& viewer, std::size_t total) {
    for (std::size_t seen = 0; seen < total;) {
        seen += viewer.read().size();
    }
}

void send_input(bench::WebSocketClient& viewer, std::size_t total) {
    std::string const frame = viewer.frame(std::string(K_VIEWER_MESSAGE, 'i'));
    for (std::size_t sent = 0; sent < total; sent += K_VIEWER_MESSAGE) {
        bench::send_all(viewer.descriptor(), frame);
    }
}

void take_input(int screen, std::size_t total) {
    std::vector<char> buffer(K_SERVER_WRITE);
    for (std::size_t taken = 0; taken < total;) {
        ssize_t const got = recv(screen, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            bench::fail("recv");
        }
        taken += static_cast<std::size_t>(got);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    bool const to_viewer = std::strcmp(argv[1], "viewer") == 0;
    std::size_t const total = static_cast<std::size_t>(std::atoi(argv[4])) * 1000 * 1000;
    int const listener = bench::listen_on(static_cast<std::uint16_t>(std::atoi(argv[3])));
    bench::WebSocketClient viewer(static_cast<std::uint16_t>(std::atoi(argv[2])), "/websockify");
    int const screen = bench::accept_on(listener);
    auto const begin = std::chrono::steady_clock::now();
    std::thread sender(
        [&] { to_viewer ? send_pictures(screen, total) : send_input(viewer, total); });
    to_viewer ? watch(viewer, total) : take_input(screen, total);
    std::chrono::duration<double> const time = std::chrono::steady_clock::now() - begin;
    sender.join();
    std::printf("%.0f\n", static_cast<double>(total) / time.count());
    close(screen);
    return 0;
}
