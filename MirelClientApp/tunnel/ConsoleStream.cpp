#include "MirelClientApp/tunnel/ConsoleStream.hpp"

#include "MirelClientApp/console/PtySession.hpp"
#include "MirelClientApp/tunnel/TunnelConnection.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"

#include <array>
#include <tuple>
#include <utility>

namespace mirelclient {

using namespace tessaron::tunnel;
using tessaron::MutexLock;

ConsoleStream::ConsoleStream(std::unique_ptr<PtySession> session) : session_(std::move(session)) {
}

ConsoleStream::~ConsoleStream() = default;

void ConsoleStream::deliver(std::string_view payload, int tunnel) {
    MutexLock const lock(input_mutex_);
    if (!terminated_) {
        parser_.feed(payload, [this, tunnel](std::uint8_t kind, std::string_view data) {
            handle_sub_frame(kind, data, tunnel);
        });
    }
}

void ConsoleStream::handle_sub_frame(std::uint8_t kind, std::string_view data, int tunnel) {
    if (kind == CONSOLE_BYTES) {
        // If the terminal takes no more, the pump notices.
        std::ignore = session_->write_input(data, tunnel);
    } else if (kind == CONSOLE_RESIZE && data.size() == K_CONSOLE_RESIZE_SIZE) {
        session_->resize(read_u16(data.data()), read_u16(data.data() + 2));
    }
}

void ConsoleStream::pump_console_from_pty(TunnelConnection& connection, std::uint32_t stream) {
    std::array<char, K_READ_SIZE> buffer;
    for (;;) {
        std::size_t const count = session_->read_output(buffer.data(), buffer.size());
        // What had come before a close is nobody's any more.
        if (count == 0 || closed_ ||
            !connection.send_console_frame(stream, {buffer.data(), count})) {
            return;
        }
    }
}

void ConsoleStream::finish() {
    session_->interrupt(); // a writer lets go of the mutex
    {
        MutexLock const lock(input_mutex_);
        terminated_ = true;
    }
    session_->terminate();
}

void ConsoleStream::close() noexcept {
    closed_ = true;
    session_->interrupt();
}

} // namespace mirelclient
