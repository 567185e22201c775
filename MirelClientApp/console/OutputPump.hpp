#pragma once

#include "MirelClientApp/web/WsConnection.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <string_view>
#include <thread>

namespace mirelclient {

class PtySession;

/// Moves a terminal's output to its browser: each piece that is read becomes a message of its own.
/// Those that are there already leave in one go, which wakes the other side once: it shares the
/// machine's processors with the shell.
///
/// A terminal holds no more than a few kilobytes, so whoever fills it stands still while a long
/// output is sent. From the first such output on, two threads therefore take turns: one reads what
/// comes next while the other sends. Short output, as a key's echo, is read and sent by one.
///
/// Ownership: session, connection and flag are the caller's; its second thread is joined by `run`.
/// Thread safety: `run` once, on a thread of its own. It returns when the terminal's output or the
/// connection has ended, or `PtySession::interrupt` and a shutdown of the socket have ended them.
class OutputPump {
public:
    OutputPump(PtySession& session, WsConnection& connection, std::atomic<bool>& done)
        : session_(session), connection_(connection), done_(done) {}
    OutputPump(OutputPump const&) = delete;
    OutputPump& operator=(OutputPump const&) = delete;

    /// Sets the flag in the end.
    void run();

private:
    static constexpr std::size_t K_READ_SIZE = 4096;
    static constexpr std::size_t K_READS_AT_ONCE = WsConnection::K_MAX_MESSAGES_AT_ONCE;

    /// What is read and sent at once.
    struct Batch {
        std::array<std::array<char, K_READ_SIZE>, K_READS_AT_ONCE> pieces;
        std::array<std::string_view, K_READS_AT_ONCE> messages;
        std::size_t count = 0;
    };

    void take_turns(bool is_first) TESSARON_EXCLUDES(reading_, sending_);
    /// False at the end of the output.
    bool read(Batch& batch) TESSARON_REQUIRES(reading_);
    bool send(Batch const& batch) TESSARON_REQUIRES(sending_);
    void start_second();

    PtySession& session_;
    WsConnection& connection_;
    std::atomic<bool>& done_;
    std::thread second_; ///< Of the first one.

    /// Whose turn it is to read. Who has read takes `sending_` before it gives this up, so that
    /// output leaves in the order in which it came.
    tessaron::Mutex reading_;
    tessaron::Mutex sending_;
};

} // namespace mirelclient
