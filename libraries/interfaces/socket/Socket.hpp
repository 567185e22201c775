#pragma once

#include <sys/socket.h>

namespace proto::interface {

/// A socket of the system, closed with the object. It is not handed on to programs that are
/// started.
///
/// Thread safety: calls on the socket from any thread, as the system's; `close`, moves and the
/// destructor while no other thread is in any, the caller's duty.
/// Errors: a socket that could not be made is not open; `false`, and `errno` tells why.
class Socket {
public:
    Socket() noexcept = default;
    /// Takes the descriptor over; -1 for none.
    explicit Socket(int descriptor) noexcept : descriptor_(descriptor) {}
    /// For IPv4; `SOCK_STREAM` or `SOCK_DGRAM`.
    static Socket make(int type) noexcept;
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    ~Socket();

    bool is_open() const noexcept { return descriptor_ >= 0; }
    int descriptor() const noexcept { return descriptor_; }

    template <typename Value>
    bool set_option(int level, int option, Value const& value) const noexcept {
        return ::setsockopt(descriptor_, level, option, &value, sizeof(value)) == 0;
    }
    /// Wakes who waits in a call that this concerns: `SHUT_RD`, `SHUT_WR` or `SHUT_RDWR`.
    void shut_down(int how = SHUT_RDWR) const noexcept { ::shutdown(descriptor_, how); }
    void close() noexcept;

private:
    int descriptor_ = -1;
};

} // namespace proto::interface
