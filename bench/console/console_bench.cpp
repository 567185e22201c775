// A terminal over a WebSocket against a bare reader of a pseudo-terminal and against websockify:
// how fast a long text comes through, and how long a keystroke's echo takes. All start the same
// shell, and take turns.

#include "MirelClientApp/console/Console.hpp"
#include "MirelClientApp/web/WebServer.hpp"
#include "bench/support/WebSocketClient.hpp"
#include "bench/support/loopback.hpp"
#include "bench/support/statistics.hpp"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <pty.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using bench::fail;
using bench::median;

using Clock = std::chrono::steady_clock;

constexpr int K_ROUNDS = 11;
constexpr int K_KEYSTROKES = 1000;
constexpr std::size_t K_TEXT_BYTES = std::size_t{50} * 1000 * 1000;

/// One terminal as its user sees it: keys in, output out.
class ITerminal {
public:
    virtual ~ITerminal() = default;
    virtual void type(std::string_view keys) = 0;
    /// The next piece of output.
    virtual std::string_view read() = 0;
};

class BareTerminal : public ITerminal {
public:
    BareTerminal() {
        winsize size{24, 80, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TERM", "xterm-256color", 1);
            execl("/bin/sh", "sh", nullptr);
            _exit(127);
        }
    }
    ~BareTerminal() override {
        close(master_);
        kill(pid_, SIGHUP);
        waitpid(pid_, nullptr, 0);
    }
    BareTerminal(BareTerminal const&) = delete;
    BareTerminal& operator=(BareTerminal const&) = delete;

    void type(std::string_view keys) override {
        if (write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
            fail("write");
        }
    }
    std::string_view read() override {
        ssize_t const got = ::read(master_, buffer_.data(), buffer_.size());
        if (got <= 0) {
            fail("read");
        }
        return {buffer_.data(), static_cast<std::size_t>(got)};
    }

private:
    int master_ = -1;
    pid_t pid_ = -1;
    std::array<char, 4096> buffer_;
};

class WebTerminal : public ITerminal {
public:
    WebTerminal(std::uint16_t port, std::string const& path) : client_(port, path) {}

    void type(std::string_view keys) override { client_.write(keys); }
    std::string_view read() override { return client_.read(); }

private:
    bench::WebSocketClient client_;
};

/// Reads up to the text; returns how many bytes came.
std::size_t read_until(ITerminal& terminal, std::string_view text) {
    std::string tail;
    std::size_t total = 0;
    while (tail.find(text) == std::string::npos) {
        if (tail.size() > 2 * text.size()) {
            tail.erase(0, tail.size() - text.size());
        }
        std::string_view const piece = terminal.read();
        total += piece.size();
        tail.append(piece.substr(piece.size() - std::min(piece.size(), 2 * text.size())));
    }
    return total;
}

double megabytes_per_second(ITerminal& terminal, std::string const& file) {
    terminal.type("PS1=\n");
    terminal.type("echo rea''dy\n");
    read_until(terminal, "ready\r\n");
    auto const begin = Clock::now();
    terminal.type("cat " + file + "; echo en''d\n");
    std::size_t const bytes = read_until(terminal, "end\r\n");
    std::chrono::duration<double> const time = Clock::now() - begin;
    return static_cast<double>(bytes) / 1e6 / time.count();
}

double echo_microseconds(ITerminal& terminal) {
    terminal.type("stty raw -echo; echo rea''dy; exec cat\n");
    read_until(terminal, "ready\n");
    std::vector<double> times;
    for (int i = 0; i < K_KEYSTROKES; ++i) {
        auto const begin = Clock::now();
        terminal.type("x");
        terminal.read();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    return median(std::move(times));
}

std::string write_text() {
    std::string const path = "/tmp/console_bench_text";
    std::string line;
    for (char letter = ' '; line.size() < 71; ++letter) {
        line += letter;
    }
    line += '\n';
    std::string text;
    while (text.size() < K_TEXT_BYTES) {
        text += line;
    }
    int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("write");
    }
    close(fd);
    return path;
}

struct Figures {
    std::vector<double> rates;
    std::vector<double> echoes;
};

template <typename MakeTerminal>
void measure(Figures& figures, std::string const& file, MakeTerminal const& make_terminal) {
    figures.rates.push_back(megabytes_per_second(*make_terminal(), file));
    figures.echoes.push_back(echo_microseconds(*make_terminal()));
}

void report(char const* peer, Figures const& ours, Figures const& theirs) {
    double const rate = median(theirs.rates);
    double const echo = median(theirs.echoes);
    std::printf("%s: 50 MB at %.1f MB/s, ours %.2fx; echo of a key %.1f us, ours %.2fx\n", peer,
                rate, median(ours.rates) / rate, echo, median(ours.echoes) / echo);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT   (of the peer; see ./run)\n", argv[0]);
        return 2;
    }
    auto const peer_port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    mirelclient::Console console;
    mirelclient::WebServer server("127.0.0.1", 0);
    server.route_ws("GET", "/ws", [&console](int fd, mirelclient::HttpRequest const& request) {
        console.serve_terminal(fd, request);
    });
    if (std::string const error = server.start(); !error.empty()) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::string const file = write_text();
    Figures bare, ours, peer;
    for (int round = 0; round < K_ROUNDS; ++round) {
        measure(bare, file, [] { return std::make_unique<BareTerminal>(); });
        measure(ours, file, [&] { return std::make_unique<WebTerminal>(server.port(), "/ws"); });
        measure(peer, file,
                [&] { return std::make_unique<WebTerminal>(peer_port, "/websockify"); });
    }
    unlink(file.c_str());
    console.request_stop();
    report("bare pseudo-terminal", ours, bare);
    report("websockify before a pseudo-terminal", ours, peer);
    return 0;
}
