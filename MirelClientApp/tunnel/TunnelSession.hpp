#pragma once

#include "MirelClientApp/tunnel/StreamTable.hpp"
#include "MirelClientApp/tunnel/TunnelConnection.hpp"
#include "MirelClientApp/web/HandlerGate.hpp"
#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>

namespace mirelclient {

class PtySession;

/// What the server may open streams to.
struct TunnelTargets {
    /// A new shell, or null; a stop request limits the wait for its end. Called on the `tunnel`
    /// thread.
    using SpawnTerminal = std::function<std::unique_ptr<PtySession>(std::stop_token)>;

    std::uint16_t web_port = 0;
    std::uint16_t vnc_port = 0;
    SpawnTerminal spawn_terminal;
};

/// One connection to the server from its first frame to its end, with its streams.
///
///     none --OPEN--> open --CLOSE from the server--> closing --pump ends--> none, CLOSE sent
///                    open --its other side ends, or a send fails----------> none, CLOSE sent
///                    open --OPEN of the same id--> replaced --pump ends---> nothing sent
///
/// Streams don't survive their connection, and each belongs to one object of this class: what an
/// old stream's thread still does never reaches a newer connection, its streams or descriptors.
///
/// Ownership: shared by the tunnel and the detached thread of each stream.
/// Thread safety: `end` safe from any thread; the rest only the `tunnel` thread.
/// Errors: `read_loop` returns when the connection has failed or was ended.
class TunnelSession : public std::enable_shared_from_this<TunnelSession> {
public:
    /// A stop request ends the reading, a dial to a backend, and the patience with shells. The
    /// gate, which is open, counts the threads of the streams.
    TunnelSession(tessaron::UniqueFd socket, TunnelTargets targets, std::stop_token stop,
                  std::shared_ptr<HandlerGate> stream_threads);

    [[nodiscard]] bool send_register(std::string const& client_name);
    /// Serves the server's frames. An exception means that the machine has nothing left to give.
    void read_loop();
    /// Ends the connection and all streams. Never blocks; may be repeated.
    void end();

private:
    void handle(TunnelFrame const& frame);
    void open_stream(std::uint32_t stream, std::string const& target);
    void open_console_stream(std::uint32_t stream);
    void open_backend_stream(std::uint32_t stream, std::uint16_t port);
    void deliver_data(std::uint32_t stream, std::string const& payload);
    void close_stream(std::uint32_t stream) { streams_.close(stream); }
    void send_close(std::uint32_t stream);

    void start_pump(std::uint32_t id, std::shared_ptr<TunnelStream> const& stream);
    /// The body of a stream's thread.
    static void run_pump(std::shared_ptr<TunnelSession> session, std::uint32_t id,
                         std::shared_ptr<TunnelStream> stream);

    TunnelConnection connection_;
    TunnelTargets const targets_;
    std::stop_token const stop_;
    std::shared_ptr<HandlerGate> const stream_threads_;
    StreamTable streams_;
};

} // namespace mirelclient
