#pragma once

#include "bench/support/Inbox.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

/// A client that takes whole frames out of a large buffer, as browsers do, and does no more work
/// for them than it must: what is measured is the other side.
class WebSocketClient {
public:
    WebSocketClient(std::uint16_t port, std::string const& path);
    ~WebSocketClient();
    WebSocketClient(WebSocketClient const&) = delete;
    WebSocketClient& operator=(WebSocketClient const&) = delete;

    /// The next frame's payload, valid until the next call.
    std::string_view read();
    void write(std::string_view payload);

    /// A binary frame as clients send it, with a mask.
    static std::string frame(std::string_view payload);
    int descriptor() const { return fd_; }

private:
    int fd_;
    Inbox inbox_{std::size_t{256} * 1024};
};

} // namespace bench
