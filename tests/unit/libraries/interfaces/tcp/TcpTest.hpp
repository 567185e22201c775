#pragma once

#include "libraries/interfaces/tcp/TcpServerInterface.hpp"
#include "tests/unit/MirelClientApp/web/LoopbackClient.hpp"
#include "tests/unit/libraries/interfaces/Recorder.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <sys/socket.h>

namespace proto::interface::test {

/// A client of the gateway's transport.
class TcpClient : public mirelclient::test::LoopbackClient {
public:
    using LoopbackClient::LoopbackClient;

    /// So many bytes, or fewer at the end of the connection or after 20 seconds.
    std::string read(std::size_t size) const {
        std::string text;
        std::array<char, 65536> buffer;
        while (text.size() < size) {
            std::size_t const wanted = std::min(size - text.size(), buffer.size());
            ssize_t const got = ::recv(fd(), buffer.data(), wanted, 0);
            if (got <= 0) {
                break;
            }
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
        return text;
    }
    /// Whether the other side has given the connection up, rather than the wait for that.
    bool sees_the_end() const {
        char byte = 0;
        ssize_t const got = ::recv(fd(), &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
};

inline bool wait_for_clients(TcpServerInterface& server, std::size_t count) {
    return tessaron::test::wait_until([&] { return server.client_count() == count; },
                                      std::to_string(count) + " clients are there");
}

} // namespace proto::interface::test
