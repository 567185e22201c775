#pragma once

#include "MirelClientApp/tunnel/ConsoleFrameParser.hpp"
#include "MirelClientApp/tunnel/TunnelStream.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <cstddef>
#include <memory>

namespace mirelclient {

class PtySession;

/// A stream to a shell of its own, which lives as long as the stream.
///
/// The shell is hung up and waited for in `finish`, on the stream's own thread: one that ignores
/// the hang-up keeps that thread and nothing else.
class ConsoleStream : public TunnelStream {
public:
    static constexpr std::size_t K_READ_SIZE = 8'192;

    explicit ConsoleStream(std::unique_ptr<PtySession> session);
    ~ConsoleStream() override;

    void deliver(std::string_view payload, int tunnel) override TESSARON_EXCLUDES(input_mutex_);
    void pump(TunnelConnection& connection, std::uint32_t stream) override {
        pump_console_from_pty(connection, stream);
    }
    void finish() override TESSARON_EXCLUDES(input_mutex_);
    void close() noexcept override;

private:
    void pump_console_from_pty(TunnelConnection& connection, std::uint32_t stream);
    void handle_sub_frame(std::uint8_t kind, std::string_view data, int tunnel);

    std::unique_ptr<PtySession> const session_;
    std::atomic<bool> closed_{false};
    /// Held while bytes wait for the terminal to take them; `close` ends that wait.
    tessaron::Mutex input_mutex_;
    bool terminated_ TESSARON_GUARDED_BY(input_mutex_) = false;
    ConsoleFrameParser parser_ TESSARON_GUARDED_BY(input_mutex_);
};

} // namespace mirelclient
