#pragma once

#include "libraries/interfaces/multicast/DatagramBatch.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>

namespace proto::interface {

/// A batch of datagrams as one call of `sendmmsg` takes it. A run of the same size, of which the
/// last may be shorter, becomes one message that the system cuts into its datagrams.
///
/// Ownership: the datagrams and the destination must outlive the object.
/// Thread safety: one thread at a time, the caller's duty.
class DatagramMessages {
public:
    /// Those larger than `segment_limit` become a message each. No more than a batch holds.
    DatagramMessages(std::span<DatagramBatch::Datagram> datagrams, sockaddr_in& destination,
                     std::size_t segment_limit);
    DatagramMessages(DatagramMessages const&) = delete;
    DatagramMessages& operator=(DatagramMessages const&) = delete;

    /// As `sendmmsg`: how many messages went out, or -1.
    int send(int fd);
    /// How many datagrams the first `messages` messages hold.
    std::size_t datagrams(std::size_t messages) const;
    /// How many datagrams the first message holds.
    std::size_t first_run() const { return runs_[0]; }

private:
    struct Control {
        alignas(cmsghdr) unsigned char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
    };

    void add(iovec* pieces, std::size_t run, sockaddr_in& destination);

    std::size_t count_ = 0;
    std::array<mmsghdr, DatagramBatch::K_MAX_DATAGRAMS> messages_;
    std::array<iovec, DatagramBatch::K_MAX_DATAGRAMS> pieces_; ///< One for each datagram.
    std::array<std::size_t, DatagramBatch::K_MAX_DATAGRAMS> runs_;
    std::array<Control, DatagramBatch::K_MAX_DATAGRAMS> controls_;
};

} // namespace proto::interface
