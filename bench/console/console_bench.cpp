// A terminal over a WebSocket against a bare reader of a pseudo-terminal: how fast a long text
// comes through, and how long a keystroke's echo takes. Both start the same shell, and take turns.

#include "MirelClientApp/console/Console.hpp"
#include "MirelClientApp/web/WebServer.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int K_ROUNDS = 7;
constexpr int K_KEYSTROKES = 1000;
constexpr std::size_t K_TEXT_BYTES = std::size_t{50} * 1000 * 1000;

[[noreturn]] void fail(char const* what) {
    std::perror(what);
    std::exit(1);
}

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

/// A client that takes whole frames out of a large buffer, as browsers do.
class WebTerminal : public ITerminal {
public:
    explicit WebTerminal(std::uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            fail("connect");
        }
        int const on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        send_bytes("GET /ws HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        std::size_t head_end = 0;
        while (head_end == 0) {
            receive();
            std::size_t const found = view().find("\r\n\r\n");
            head_end = found == std::string_view::npos ? 0 : found + 4;
        }
        begin_ += head_end;
    }
    ~WebTerminal() override { close(fd_); }
    WebTerminal(WebTerminal const&) = delete;
    WebTerminal& operator=(WebTerminal const&) = delete;

    void type(std::string_view keys) override {
        std::string frame = "\x82";
        frame += static_cast<char>(0x80 | keys.size());
        frame.append(4, '\0'); // a mask that changes nothing
        send_bytes(frame.append(keys));
    }
    std::string_view read() override {
        for (;;) {
            std::string_view const input = view();
            std::size_t size = input.size() < 2 ? 0 : static_cast<unsigned char>(input[1]);
            std::size_t header = 2;
            if (size == 126 && input.size() >= 4) {
                size = static_cast<std::size_t>(static_cast<unsigned char>(input[2])) << 8 |
                       static_cast<unsigned char>(input[3]);
                header = 4;
            }
            if (input.size() >= 4 - (header == 2 ? 2 : 0) && input.size() >= 2 &&
                input.size() >= header + size && !(header == 2 && size == 126)) {
                begin_ += header + size;
                return input.substr(header, size);
            }
            receive();
        }
    }

private:
    std::string_view view() const { return {buffer_.data() + begin_, end_ - begin_}; }
    void receive() {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
                  buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
        ssize_t const got = recv(fd_, buffer_.data() + end_, buffer_.size() - end_, 0);
        if (got <= 0) {
            fail("recv");
        }
        end_ += static_cast<std::size_t>(got);
    }
    void send_bytes(std::string_view bytes) const {
        if (send(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            fail("send");
        }
    }

    int fd_;
    std::vector<char> buffer_ = std::vector<char>(std::size_t{256} * 1024);
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
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

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
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

} // namespace

int main() {
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
    std::vector<double> bare_rates, web_rates, bare_echoes, web_echoes;
    for (int round = 0; round < K_ROUNDS; ++round) {
        bare_rates.push_back(megabytes_per_second(*std::make_unique<BareTerminal>(), file));
        web_rates.push_back(
            megabytes_per_second(*std::make_unique<WebTerminal>(server.port()), file));
        bare_echoes.push_back(echo_microseconds(*std::make_unique<BareTerminal>()));
        web_echoes.push_back(echo_microseconds(*std::make_unique<WebTerminal>(server.port())));
    }
    unlink(file.c_str());
    console.request_stop();
    std::printf("50 MB through a terminal, MB/s: bare %.1f, WebSocket %.1f, ratio %.2f\n",
                median(bare_rates), median(web_rates), median(web_rates) / median(bare_rates));
    std::printf("echo of a keystroke, us: bare %.1f, WebSocket %.1f, ratio %.2f\n",
                median(bare_echoes), median(web_echoes), median(web_echoes) / median(bare_echoes));
    return 0;
}
