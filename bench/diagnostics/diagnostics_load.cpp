// Asks an application, and takes the time of each question. Usage:
//
//     diagnostics_load rest PORT APP COUNT   in turns over the bus and through the daemon's web
//                                            server: the medians in microseconds, as JSON
//     diagnostics_load read APP FILE         the last 200 lines of its log, twice over the bus and
//                                            then with sed, and the same by its index alone, in
//                                            microseconds, as JSON
#include "app/AppControlClient.hpp"
#include "app/utilities/file_io.hpp"
#include "bench/support/loopback.hpp"
#include "bench/support/statistics.hpp"
#include "logger/LineIndex.hpp"
#include "tests/support/MulticastNode.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using tessaron::AppControlClient;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds K_TIMEOUT{2000};
constexpr std::uint64_t K_LINES = 200;

template <typename Work>
double microseconds(Work const& work) {
    auto const begin = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

/// A client that asks the application of that name, on a node of its own.
struct Asker {
    explicit Asker(std::string const& app) {
        node.join();
        client = AppControlClient::create(
            node.hub, node.hub.resolve_local_client_address(60001, 0, "diagnostics_load"));
        for (auto const& hub : node.hub.discover_network(0, K_TIMEOUT).hubs) {
            for (auto const& module : hub.modules) {
                if (hub.name == app && module.name == "logger") {
                    client->set_targets(module.address, module.address, module.address);
                    return;
                }
            }
        }
        bench::fail("no such application on the bus");
    }

    tessaron::test::MulticastNode node{60000, "load"};
    std::shared_ptr<AppControlClient> client;
};

void get(std::uint16_t port, std::string const& path) {
    int const fd = bench::dial(port);
    bench::send_all(fd, "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    std::string answer;
    std::array<char, 4096> buffer{};
    ssize_t got = 0;
    while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
        answer.append(buffer.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    if (answer.find(" 200 ") == std::string::npos) {
        bench::fail("the daemon does not answer");
    }
}

int measure_rest(std::uint16_t port, std::string const& app, int count) {
    Asker const asker(app);
    std::string const path = "/api/packages/" + app + "/log/info";
    std::vector<double> bus;
    std::vector<double> rest;
    for (int i = 0; i < count; ++i) {
        bus.push_back(microseconds([&] {
            if (!asker.client->log_info(K_TIMEOUT)) {
                bench::fail("the application does not answer");
            }
        }));
        rest.push_back(microseconds([&] { get(port, path); }));
    }
    std::printf("{\"bus\": %.1f, \"rest\": %.1f}\n", bench::median(bus), bench::median(rest));
    return EXIT_SUCCESS;
}

void run_sed(std::string const& script, std::string const& file) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::array<char*, 5> arguments{const_cast<char*>("sed"), const_cast<char*>("-n"),
                                   const_cast<char*>(script.c_str()),
                                   const_cast<char*>(file.c_str()), nullptr};
    pid_t pid = 0;
    int status = 0;
    if (::posix_spawnp(&pid, "sed", &actions, nullptr, arguments.data(), environ) != 0 ||
        ::waitpid(pid, &status, 0) != pid || status != 0) {
        bench::fail("sed");
    }
    ::posix_spawn_file_actions_destroy(&actions);
}

int measure_read(std::string const& app, std::string const& file) {
    Asker const asker(app);
    auto const info = asker.client->log_info(K_TIMEOUT);
    if (!info || info->line_count < K_LINES) {
        bench::fail("the log is too short");
    }
    std::uint64_t const to = info->line_count;
    std::uint64_t const from = to - K_LINES + 1;
    auto const read = [&] {
        auto const reply = asker.client->log_read(from, to, K_TIMEOUT);
        if (!reply || reply->lines.size() != K_LINES) {
            bench::fail("the lines do not come");
        }
    };
    double const first = microseconds(read);
    double const second = microseconds(read);
    double const sed =
        microseconds([&] { run_sed(std::to_string(from) + "," + std::to_string(to) + "p", file); });
    // What the application does for it, without the way there and back.
    tessaron::LineIndex index;
    tessaron::UniqueFd const log = tessaron::open_file(file, O_RDONLY);
    auto const look_up = [&] {
        if (index.read(file, log.get(), from, to).lines.size() != K_LINES) {
            bench::fail("the lines are not there");
        }
    };
    double const first_look_up = microseconds(look_up);
    double const second_look_up = microseconds(look_up);
    std::printf("{\"first\": %.1f, \"second\": %.1f, \"sed\": %.1f, \"first_look_up\": %.1f, "
                "\"second_look_up\": %.1f}\n",
                first, second, sed, first_look_up, second_look_up);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    std::string_view const what = argc > 1 ? argv[1] : "";
    if (what == "rest" && argc == 5) {
        return measure_rest(static_cast<std::uint16_t>(std::atoi(argv[2])), argv[3],
                            std::atoi(argv[4]));
    }
    if (what == "read" && argc == 4) {
        return measure_read(argv[2], argv[3]);
    }
    std::fputs("usage: diagnostics_load rest PORT APP COUNT | read APP FILE\n", stderr);
    return 2;
}
