#pragma once

#include "MirelClientApp/tunnel/WindowWatch.hpp"
#include "MirelClientApp/web/ReceiveBuffer.hpp"
#include "app/utilities/file_io.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/uio.h>

namespace mirelclient {

/// How the loss of the network is noticed: by the system, without a byte of our own on the wire.
/// A silent connection is probed, a busy one waits for its acknowledgements; either is given up
/// after `answer_limit`, or `keepalive_interval` later. With the pause before the next dial and a
/// dial of its own, there is a new connection within 30 seconds of the network's return.
struct TunnelLiveness {
    std::chrono::seconds keepalive_idle{5};
    std::chrono::seconds keepalive_interval{5};
    int keepalive_count = 3;
    std::chrono::milliseconds answer_limit{15'000};
    /// Between two looks at a connection that waits.
    std::chrono::milliseconds look_period{3'000};
};

struct TunnelFrame {
    tessaron::tunnel::FrameHeader header;
    std::string payload;
};

/// One connection to the server, in frames.
///
/// Ownership: the socket, which is closed with the object. Its threads share the object, so the
/// descriptor can't become another file's while one of them still uses it.
/// Thread safety: `read_frame` one thread at a time; the rest safe from any thread. One lock keeps
/// the frames of several threads apart, and is held while the server does not read.
/// Errors: `false` or nothing when the connection has failed or was shut down.
class TunnelConnection {
public:
    /// Takes a connected socket, and has it block.
    explicit TunnelConnection(tessaron::UniqueFd socket, TunnelLiveness const& liveness = {});

    /// Blocks while the server does not read.
    [[nodiscard]] bool send_frame(std::uint8_t type, std::uint32_t stream, std::string_view payload)
        TESSARON_EXCLUDES(write_mutex_);
    /// Several frames of one stream in one go, `K_MAX_FRAMES_AT_ONCE` at most.
    [[nodiscard]] bool send_frames(std::uint8_t type, std::uint32_t stream,
                                   std::span<std::string_view const> payloads)
        TESSARON_EXCLUDES(write_mutex_);
    static constexpr std::size_t K_MAX_FRAMES_AT_ONCE = 4;
    /// Terminal output: one sub-frame in one frame.
    [[nodiscard]] bool send_console_frame(std::uint32_t stream, std::string_view bytes)
        TESSARON_EXCLUDES(write_mutex_);

    /// The next frame, or nothing at the end of the connection; a frame with a larger payload than
    /// allowed is the end of it, before any memory is taken.
    [[nodiscard]] std::optional<TunnelFrame> read_frame();

    /// For a wait that is to end with the connection.
    int descriptor() const noexcept { return socket_.get(); }

    /// Ends the connection and wakes all threads that wait for it. Never blocks.
    void shutdown() noexcept;

private:
    /// In as few calls as the system makes of it. Uses up the list.
    bool send_full(std::span<iovec> pieces) TESSARON_EXCLUDES(write_mutex_);
    bool recv_full(char* buffer, std::size_t size);
    /// Some bytes, at least one; 0 at the end of the connection.
    std::size_t receive(char* buffer, std::size_t most);
    /// After a call that moved no byte: whether it is to be repeated.
    bool may_go_on();

    tessaron::UniqueFd const socket_;
    WindowWatch window_watch_;
    ReceiveBuffer<std::size_t{64} * 1024> input_;
    tessaron::Mutex write_mutex_;
};

} // namespace mirelclient
