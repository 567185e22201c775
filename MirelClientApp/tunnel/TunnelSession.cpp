#include "MirelClientApp/tunnel/TunnelSession.hpp"

#include "MirelClientApp/console/PtySession.hpp"
#include "MirelClientApp/tunnel/BackendStream.hpp"
#include "MirelClientApp/tunnel/ConsoleStream.hpp"
#include "MirelClientApp/tunnel/tunnel_dial.hpp"
#include "libraries/threads/start_thread.hpp"

#include <system_error>
#include <tuple>
#include <utility>

namespace mirelclient {

using namespace tessaron::tunnel;

TunnelSession::TunnelSession(tessaron::UniqueFd socket, TunnelTargets targets, std::stop_token stop,
                             std::shared_ptr<HandlerGate> stream_threads)
    : connection_(std::move(socket)), targets_(std::move(targets)), stop_(std::move(stop)),
      stream_threads_(std::move(stream_threads)) {
}

bool TunnelSession::send_register(std::string const& client_name) {
    return connection_.send_frame(FRAME_REGISTER, 0, client_name);
}

void TunnelSession::read_loop() {
    TunnelFrame frame;
    while (!stop_.stop_requested() && connection_.read_frame(frame)) {
        handle(frame);
    }
}

void TunnelSession::end() {
    connection_.shutdown();
    streams_.close_all();
}

void TunnelSession::handle(TunnelFrame const& frame) {
    std::uint32_t const stream = frame.header.stream;
    switch (frame.header.type) {
    case FRAME_OPEN:
        open_stream(stream, frame.payload);
        break;
    case FRAME_DATA:
        deliver_data(stream, frame.payload);
        break;
    case FRAME_CLOSE:
        close_stream(stream);
        break;
    default:
        break; // of a newer server
    }
}

void TunnelSession::open_stream(std::uint32_t stream, std::string const& target) {
    if (target == "console") {
        open_console_stream(stream);
    } else if (target == "http") {
        open_backend_stream(stream, targets_.web_port);
    } else if (target == "vnc") {
        open_backend_stream(stream, targets_.vnc_port);
    } else {
        send_close(stream);
    }
}

void TunnelSession::open_backend_stream(std::uint32_t stream, std::uint16_t port) {
    tessaron::UniqueFd socket = connect_local(port, stop_);
    if (!socket.is_open()) {
        send_close(stream);
        return;
    }
    start_pump(stream, std::make_shared<BackendStream>(std::move(socket)));
}

void TunnelSession::open_console_stream(std::uint32_t stream) {
    std::unique_ptr<PtySession> session = targets_.spawn_terminal(stop_);
    if (!session) {
        send_close(stream);
        return;
    }
    start_pump(stream, std::make_shared<ConsoleStream>(std::move(session)));
}

void TunnelSession::deliver_data(std::uint32_t stream, std::string const& payload) {
    if (auto const receiver = streams_.find(stream); receiver && !payload.empty()) {
        receiver->deliver(payload, connection_.descriptor());
    }
}

void TunnelSession::send_close(std::uint32_t stream) {
    // If it fails, so will the next read.
    std::ignore = connection_.send_frame(FRAME_CLOSE, stream, {});
}

void TunnelSession::start_pump(std::uint32_t id, std::shared_ptr<TunnelStream> const& stream) {
    if (!streams_.add(id, stream)) {
        return;
    }
    try {
        tessaron::start_thread("tunnel-stream", [session = shared_from_this(), id,
                                                 stream]() mutable {
            run_pump(std::move(session), id, std::move(stream));
        }).detach();
    } catch (std::system_error const&) {
        // No thread to be had.
        std::ignore = streams_.forget(id, stream);
        stream->close();
        send_close(id);
    }
}

void TunnelSession::run_pump(std::shared_ptr<TunnelSession> session, std::uint32_t id,
                             std::shared_ptr<TunnelStream> stream) {
    std::shared_ptr<HandlerGate> const threads = session->stream_threads_;
    HandlerGate::Pass const living(*threads);
    stream->pump(session->connection_, id);
    bool const id_is_free = session->streams_.forget(id, stream);
    // A shell may take for ever to end: meanwhile it must not keep the connection's descriptor.
    std::weak_ptr<TunnelSession> const connection_if_alive = session;
    session.reset();
    stream->finish();
    stream.reset();
    session = connection_if_alive.lock();
    // Where the id has been given to a newer stream, this one's end would be taken for its.
    if (session && id_is_free) {
        session->send_close(id);
    }
}

} // namespace mirelclient
