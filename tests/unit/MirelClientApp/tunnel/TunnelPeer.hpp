#pragma once

#include "MirelClientApp/tunnel/tunnel_frame.hpp"
#include "app/utilities/file_io.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <utility>

namespace mirelclient::test {

/// A connection as its other side sees it. Waits end after 20 seconds.
class Peer {
public:
    explicit Peer(tessaron::UniqueFd fd) : fd_(std::move(fd)) {
        timeval const limit{20, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }

    int fd() const { return fd_.get(); }
    void hang_up() { fd_.reset(); }
    /// Hangs up without waiting for what is on its way.
    void reset() {
        linger const at_once{1, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        fd_.reset();
    }

    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            ssize_t const sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    /// So many bytes, or what came before the end.
    std::string read(std::size_t size) {
        std::string bytes(size, '\0');
        std::size_t got = 0;
        while (got < size) {
            ssize_t const count = recv(fd_.get(), bytes.data() + got, size - got, 0);
            if (count <= 0) {
                break;
            }
            got += static_cast<std::size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }

    /// The other side has closed, and nothing is left to be read.
    bool is_at_end() {
        char byte = 0;
        ssize_t const count = recv(fd_.get(), &byte, 1, 0);
        return count == 0 || (count < 0 && errno == ECONNRESET);
    }

private:
    tessaron::UniqueFd fd_;
};

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

inline std::string frame_bytes(std::uint8_t type, std::uint32_t stream,
                               std::string_view payload = {}) {
    auto const header = encode_header({type, stream, static_cast<std::uint32_t>(payload.size())});
    return std::string(header.begin(), header.end()).append(payload);
}

inline std::string sub_frame(std::uint8_t kind, std::string_view data) {
    auto const header = encode_console_header(kind, static_cast<std::uint32_t>(data.size()));
    return std::string(header.begin(), header.end()).append(data);
}

/// A frame that has come, written so that failures can be read.
struct Received {
    int type = -1;
    std::uint32_t stream = 0;
    std::string payload;

    bool operator==(Received const&) const = default;
    friend void PrintTo(Received const& frame, std::ostream* out) {
        *out << "type " << frame.type << ", stream " << frame.stream << ", " << frame.payload.size()
             << " bytes: " << frame.payload.substr(0, 200);
    }
};

/// The server's end of a tunnel.
class TunnelPeer : public Peer {
public:
    using Peer::Peer;

    bool send_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload = {}) {
        return send(frame_bytes(type, stream, payload));
    }
    bool open(std::uint32_t stream, std::string_view target) {
        return send_frame(FRAME_OPEN, stream, target);
    }
    bool send_data(std::uint32_t stream, std::string_view bytes) {
        return send_frame(FRAME_DATA, stream, bytes);
    }
    bool close(std::uint32_t stream) { return send_frame(FRAME_CLOSE, stream); }

    /// The next frame; type -1 at the end of the connection.
    Received read_frame() {
        std::string const bytes = read(K_FRAME_HEADER_SIZE);
        if (bytes.size() < K_FRAME_HEADER_SIZE) {
            return {};
        }
        FrameHeaderBytes header;
        bytes.copy(header.data(), header.size());
        FrameHeader const decoded = decode_header(header);
        return {decoded.type, decoded.stream, read(decoded.length)};
    }

    /// The data of one stream until it is closed; frames of other streams are a failure.
    std::string read_stream(std::uint32_t stream) {
        std::string data;
        for (;;) {
            Received const frame = read_frame();
            if (frame.type != FRAME_DATA || frame.stream != stream) {
                EXPECT_EQ(frame, (Received{FRAME_CLOSE, stream, ""}));
                return data;
            }
            data += frame.payload;
        }
    }

    /// Shows that all frames before this were dealt with and answered by `read_frame`'s results.
    void expect_nothing_but_marker() {
        EXPECT_TRUE(open(K_MARKER, "no such target"));
        EXPECT_EQ(read_frame(), (Received{FRAME_CLOSE, K_MARKER, ""}));
    }

    static constexpr std::uint32_t K_MARKER = 0xfffffffe;
};

/// A socket's queue holds something, and as much as a moment ago. `what`: FIONREAD for what nobody
/// reads here, TIOCOUTQ for what the other side does not take.
inline bool is_stuck(int fd, unsigned long what) {
    int before = 0;
    int after = 0;
    ioctl(fd, what, &before);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ioctl(fd, what, &after);
    return before > 0 && before == after;
}
inline bool is_full(int fd) {
    return is_stuck(fd, FIONREAD);
}
inline bool send_queue_is_stuck(int fd) {
    return is_stuck(fd, TIOCOUTQ);
}

/// Somebody on this machine waits for an answer to a request to connect to that port.
inline bool is_being_dialled(std::uint16_t port) {
    std::array<char, 32> wanted{};
    std::snprintf(wanted.data(), wanted.size(), " 0100007F:%04X 02 ", port);
    auto const sockets = tessaron::read_file("/proc/self/net/tcp");
    return sockets && sockets->find(wanted.data()) != std::string::npos;
}

/// The threads of that name in this process.
inline std::size_t threads_named(std::string const& name) {
    std::size_t count = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator task("/proc/self/task", error), end;
         !error && task != end; task.increment(error)) {
        count += tessaron::read_file(task->path() / "comm") == name + "\n" ? 1U : 0U;
    }
    return count;
}

inline std::size_t entry_count(std::string const& folder) {
    auto const all = std::filesystem::directory_iterator(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}
inline std::size_t thread_count() {
    return entry_count("/proc/self/task");
}
inline std::size_t descriptor_count() {
    return entry_count("/proc/self/fd");
}

} // namespace mirelclient::test
