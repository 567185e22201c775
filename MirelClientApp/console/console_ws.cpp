#include "MirelClientApp/console/console_ws.hpp"

#include "MirelClientApp/console/OutputPump.hpp"
#include "MirelClientApp/console/PtySession.hpp"
#include "MirelClientApp/web/WsConnection.hpp"
#include "MirelClientApp/web/websocket_handshake.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/json_value.hpp"
#include "libraries/threads/start_thread.hpp"

#include <atomic>
#include <cmath>
#include <exception>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <tuple>

namespace mirelclient {

using tessaron::json::Value;

namespace {

/// Only numbers that an integer can hold can be cut; any other one has no low bits to speak of.
std::uint16_t cut_to_16_bits(double number) {
    constexpr double K_LIMIT = 9.0e18;
    if (!(std::fabs(number) < K_LIMIT)) {
        return 0;
    }
    return static_cast<std::uint16_t>(static_cast<std::int64_t>(number));
}

std::string_view text_of(WsConnection::Message const& message) {
    return {reinterpret_cast<char const*>(message.second.data()), message.second.size()};
}

void resize(PtySession& session, std::string_view control) {
    try {
        Value const size = Value::parse(std::string(control));
        session.resize(cut_to_16_bits(size.at("cols").as_double(0.0)),
                       cut_to_16_bits(size.at("rows").as_double(0.0)));
    } catch (std::exception const&) {
        // Not for us to complain: the terminal works as it is.
    }
}

void receive_input(PtySession& session, WsConnection& connection, int fd,
                   std::atomic<bool> const& done) {
    for (;;) {
        // Also when the shell has ended meanwhile: pings are answered within.
        auto const message = connection.read_message();
        if (!message || done) {
            return;
        }
        if (message->first == WsConnection::K_BINARY) {
            // What the shell does not take any more is given up.
            std::ignore = session.write_input(text_of(*message), fd);
        } else if (message->first == WsConnection::K_TEXT) {
            resize(session, text_of(*message));
        }
    }
}

} // namespace

void handle_console_ws(int fd, HttpRequest const& request, std::stop_token const& stop) {
    tessaron::UniqueFd socket(fd);
    if (stop.stop_requested() || !ws_handshake(fd, request)) {
        return;
    }
    auto const session = PtySession::spawn(stop);
    if (session == nullptr) {
        return;
    }
    WsConnection connection(socket.release());
    auto const end_connection = [fd] { ::shutdown(fd, SHUT_RDWR); };
    std::stop_callback const on_stop(stop, end_connection);
    std::atomic<bool> done{false};
    std::thread reader;
    try {
        reader = tessaron::start_thread("console-reader",
                                        [&] { OutputPump(*session, connection, done).run(); });
    } catch (std::system_error const&) {
        return; // no thread to be had: as without a terminal
    }
    receive_input(*session, connection, fd, done);
    done = true;
    // The reader may be blocked on either side, and on the browser's for ever.
    session->interrupt();
    end_connection();
    reader.join();
    session->terminate();
}

} // namespace mirelclient
