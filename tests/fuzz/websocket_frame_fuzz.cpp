// What a browser sends over a WebSocket: whatever the bytes are, they may do no harm.

#include "MirelClientApp/web/WsConnection.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

/// More would not fit into the socket, from which nobody reads yet.
constexpr std::size_t K_LARGEST_INPUT = 16 * 1024;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > K_LARGEST_INPUT) {
        return 0;
    }
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    tessaron::UniqueFd browser(ends[1]);
    std::size_t payload = 0;
    {
        mirelclient::WsConnection connection(ends[0]);
        require(::send(browser.get(), data, size, 0) == static_cast<ssize_t>(size));
        ::shutdown(browser.get(), SHUT_WR);
        // The answers to pings go nowhere, but may not fill the socket either.
        int const room = 4 * 1024 * 1024;
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        timeval const at_once{0, 1000};
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &at_once, sizeof at_once);
        while (auto const message = connection.read_message()) {
            require(message->first < 16);
            require(message->second.size() <= mirelclient::WsConnection::K_MAX_MESSAGE);
            payload += message->second.size();
        }
    }
    require(payload <= size);
    return 0;
}
