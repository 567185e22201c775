#pragma once

#include "MirelClientApp/tunnel/TunnelStream.hpp"
#include "app/utilities/file_io.hpp"

#include <atomic>
#include <cstddef>

namespace mirelclient {

/// A stream to a TCP server of this machine.
class BackendStream : public TunnelStream {
public:
    static constexpr std::size_t K_READ_SIZE = 32'768;

    /// Takes a connected, blocking socket.
    explicit BackendStream(tessaron::UniqueFd socket);

    void deliver(std::string_view payload, int tunnel) override;
    void pump(TunnelConnection& connection, std::uint32_t stream) override {
        pump_from_backend(connection, stream);
    }
    void close() noexcept override;

private:
    /// False when the tunnel has ended.
    bool wait_for_room(int tunnel) const;
    void pump_from_backend(TunnelConnection& connection, std::uint32_t stream);

    tessaron::UniqueFd const socket_;
    std::atomic<bool> closed_{false};
};

} // namespace mirelclient
