#pragma once

#include "libraries/interfaces/multicast/DatagramBatch.hpp"
#include "libraries/interfaces/multicast/SendPace.hpp"
#include "libraries/interfaces/socket/Socket.hpp"
#include "libraries/vocabulary/CustomSpan.hpp"
#include "libraries/vocabulary/IInterface.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace proto::interface {

/// Where the group is, and what its socket is to be like.
struct MulticastSettings {
    std::string group;
    std::uint16_t port = 0;
    std::string interface_addr = "0.0.0.0"; ///< one that is no address means any interface
    std::chrono::milliseconds receive_timeout{200};
    std::chrono::milliseconds send_timeout{200};
    int buffer_size = 1048576;
};

/// Whether the error of a call that received nothing is none: there was nothing, or a signal.
bool is_silence(int error);

/// A socket that is a member of a multicast group and sends to it; what it sends comes back to all
/// members on this machine, itself included. What others of this machine have joined stays out.
///
/// Ownership: users share it, so that the descriptor lives, and its number stays its own, for as
/// long as any of them is in a call.
/// Thread safety: safe from any thread.
/// Errors: `open` gives nothing, `send` false; `errno` tells why `receive` failed.
class MulticastSocket {
public:
    struct Received {
        long size;                ///< as of `recv`
        std::size_t segment_size; ///< what each of the datagrams in there is long, the last at most
    };

    [[nodiscard]] static std::shared_ptr<MulticastSocket> open(MulticastSettings const& settings);

    /// One datagram. Waits while the socket's buffer is full, for the time of the settings; then
    /// the datagram is lost.
    bool send(tessaron::CustomSpan<unsigned char> datagram);
    /// Each of them as a datagram, with as few calls as the system allows for. False if any is
    /// lost.
    bool send_all(DatagramBatch& batch);
    /// Waits until a datagram is there. Of several threads, one is woken for each. False at the end
    /// of the time of the settings, and on an error, which `errno` tells.
    bool wait_for_datagram();
    enum class IfNone : bool { Wait, Return };
    /// A datagram, or several of the same size that were sent together.
    Received receive(unsigned char* buffer, std::size_t size, IfNone if_none);

    /// Has the system drop what has all of these bytes, if it can.
    void leave_out(std::vector<ByteAt> const& unwanted);
    void hear_all();
    /// Whether `leave_out` was the last of the two.
    bool is_leaving_out() const { return is_leaving_out_; }

    /// Gives the membership up, so that the next one to join announces it anew.
    void leave();
    /// Wakes who waits in `receive`; nothing further comes in.
    void shut_down_receiving();
    /// Wakes who waits in any call; nothing further comes in or goes out.
    void shut_down();

    /// What the receive buffer holds in fact, in the unit in which it was asked for.
    int receive_buffer_size() const;
    int descriptor() const { return socket_.descriptor(); }

private:
    MulticastSocket() = default;
    bool set_up(MulticastSettings const& settings);
    void set_buffer_size(int option, int force_option, int size);

    Socket socket_;
    sockaddr_in destination_{};
    ip_mreq membership_{};
    /// Datagrams up to this size may be left to the system to be cut out of a larger piece; it
    /// shrinks when the system refuses, as it does for those beyond the network's packet size.
    std::atomic<std::size_t> segment_limit_{K_MAX_DATAGRAM_SIZE};
    std::atomic<bool> is_leaving_out_{false};
    SendPace pace_;
};

} // namespace proto::interface
