#pragma once

#include <cstdint>
#include <string_view>

namespace mirelclient {

class TunnelConnection;

/// One end of a stream on this machine: what the server's bytes go to and the answers come from.
///
/// Ownership: shared by the stream's table and its pump; each implementation owns its descriptors
/// and closes them when nobody can use them any more.
/// Thread safety: `deliver` only the `tunnel` thread, `pump` and `finish` only the stream's own
/// `tunnel-stream` thread, `close` safe from any thread.
/// Errors: none; a failed write is noticed by the pump.
class TunnelStream {
public:
    virtual ~TunnelStream() = default;

    /// Passes on all of it; blocks while the receiver doesn't take it, the stream isn't closed and
    /// `tunnel`, the socket that it came from, has not ended.
    virtual void deliver(std::string_view payload, int tunnel) = 0;
    /// Sends what comes from the other side, until that ends, a send fails or the stream is closed.
    virtual void pump(TunnelConnection& connection, std::uint32_t stream) = 0;
    /// What is left to be done after the pump; may wait for a process to end.
    virtual void finish() {}
    /// Wakes whoever is in `deliver` or `pump`. Never blocks; may be repeated.
    virtual void close() noexcept = 0;
};

} // namespace mirelclient
