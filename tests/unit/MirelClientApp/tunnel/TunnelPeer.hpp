#pragma once

#include "app/utilities/file_io.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"
#include "tests/support/Listener.hpp"
#include "tests/support/Peer.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

namespace mirelclient::test {

using tessaron::tunnel::CONSOLE_BYTES;
using tessaron::tunnel::CONSOLE_RESIZE;
using tessaron::tunnel::decode_header;
using tessaron::tunnel::encode_console_header;
using tessaron::tunnel::encode_frame;
using tessaron::tunnel::encode_header;
using tessaron::tunnel::FRAME_CLOSE;
using tessaron::tunnel::FRAME_DATA;
using tessaron::tunnel::FRAME_OPEN;
using tessaron::tunnel::FRAME_REGISTER;
using tessaron::tunnel::FrameHeader;
using tessaron::tunnel::FrameHeaderBytes;
using tessaron::tunnel::K_CONSOLE_HEADER_SIZE;
using tessaron::tunnel::K_FRAME_HEADER_SIZE;
using tessaron::tunnel::K_MAX_FRAME_PAYLOAD;

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
        return send(encode_frame(type, stream, payload));
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
