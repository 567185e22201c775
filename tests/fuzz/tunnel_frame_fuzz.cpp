// What a server may send over the tunnel: frames come out as they went in, or the connection ends.

#include "MirelClientApp/tunnel/TunnelConnection.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"
#include "tests/fuzz/require.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    // What a socket's buffer takes at once, so that one thread is enough.
    constexpr std::size_t most = 60'000;
    std::string_view const bytes(reinterpret_cast<char const*>(data), std::min(size, most));
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    require(write(ends[0], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(ends[0]);

    mirelclient::TunnelConnection connection{tessaron::UniqueFd(ends[1])};
    std::string seen;
    mirelclient::TunnelFrame frame;
    while (connection.read_frame(frame)) {
        require(frame.header.length == frame.payload.size());
        require(frame.header.length <= tessaron::tunnel::K_MAX_FRAME_PAYLOAD);
        auto const header = tessaron::tunnel::encode_header(frame.header);
        seen.append(header.begin(), header.end()).append(frame.payload);
    }
    require(bytes.starts_with(seen));
    // It ended where a frame is cut short or too large.
    std::string_view const rest = bytes.substr(seen.size());
    if (rest.size() >= tessaron::tunnel::K_FRAME_HEADER_SIZE) {
        tessaron::tunnel::FrameHeaderBytes header;
        rest.copy(header.data(), header.size());
        require(tessaron::tunnel::decode_header(header).length > rest.size() - header.size());
    }
    return 0;
}
